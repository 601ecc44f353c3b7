#include "LoopbackServer.h"

#include <set>
#include <stdexcept>

namespace QOR::test {

namespace {

constexpr char pattern[] = "0123456789";

void ServeBytes(httplib::Response& response, std::size_t size) {
  response.set_content_provider(size, "application/octet-stream",
                                [](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                  char block[64 * 1024];
                                  std::size_t count = std::min(length, sizeof block);
                                  for (std::size_t i = 0; i < count; ++i) block[i] = pattern[(offset + i) % 10];
                                  return sink.write(block, count);
                                });
}

} // namespace

LoopbackServer::LoopbackServer() : server(std::make_unique<httplib::Server>()) { AddCommonRoutes(); }

LoopbackServer::LoopbackServer(const std::string& certificateFile, const std::string& keyFile)
    : server(std::make_unique<httplib::SSLServer>(certificateFile.c_str(), keyFile.c_str())) {
  if (!server->is_valid()) throw std::runtime_error("LoopbackServer: bad certificate or key");
  AddCommonRoutes();
}

LoopbackServer::~LoopbackServer() { Stop(); }

void LoopbackServer::AddCommonRoutes() {
  server->set_keep_alive_max_count(100000);
  server->set_keep_alive_timeout(30);
  server->set_read_timeout(30, 0);
  server->set_write_timeout(30, 0);
  server->set_payload_max_length(std::size_t(1) << 32);
  server->set_logger([this](const httplib::Request& request, const httplib::Response&) {
    std::lock_guard<std::mutex> guard(lock);
    seen.push_back({request.method, request.path, request.headers, request.body.size(), request.remote_port});
  });
  server->Post("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.body, "text/plain");
  });
  auto bytes = [](const httplib::Request& request, httplib::Response& response) {
    ServeBytes(response, std::stoull(request.matches[1]));
  };
  server->Get(R"(/bytes/(\d+))", bytes);
  server->Post(R"(/bytes/(\d+))", bytes);
  server->Post("/discard", [](const httplib::Request&, httplib::Response& response,
                              const httplib::ContentReader& reader) {
    std::size_t size = 0;
    reader([&](const char*, std::size_t length) {
      size += length;
      return true;
    });
    response.set_content(std::to_string(size), "text/plain");
  });
  auto status = [](const httplib::Request& request, httplib::Response& response) {
    response.status = std::stoi(request.matches[1]);
    response.set_content("no such page here\n", "text/plain");
  };
  server->Get(R"(/status/(\d+))", status);
  server->Post(R"(/status/(\d+))", status);
}

void LoopbackServer::Start() {
  port = server->bind_to_any_port("127.0.0.1");
  if (port <= 0) throw std::runtime_error("LoopbackServer: cannot bind");
  thread = std::thread([this] { server->listen_after_bind(); });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server->is_running()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("LoopbackServer: not running");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void LoopbackServer::Stop() {
  if (!thread.joinable()) return;
  server->stop();
  thread.join();
}

std::vector<LoopbackServer::Seen> LoopbackServer::Requests() const {
  std::lock_guard<std::mutex> guard(lock);
  return seen;
}

std::size_t LoopbackServer::Connections() const {
  std::lock_guard<std::mutex> guard(lock);
  std::set<int> ports;
  for (const Seen& request : seen) ports.insert(request.clientPort);
  return ports.size();
}

} // namespace QOR::test
