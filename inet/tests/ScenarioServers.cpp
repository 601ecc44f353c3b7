#include "ScenarioServers.h"

#include <stdexcept>

namespace QOR::inettest {

namespace {

using test::Milliseconds;
using test::RawConnection;
using test::RawServer;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + i % 26);
  return bytes;
}

// Reads one request with its body; false when the client went away.
bool TakeRequest(RawConnection& connection) {
  RawConnection::Head head;
  if (!connection.ReadHead(head)) return false;
  return connection.ReadBody(head.contentLength) == head.contentLength;
}

} // namespace

ScenarioServers::ScenarioServers(int holdMs) {
  Milliseconds hold(holdMs);
  AddRaw("answer", RawServer::Answer(std::string(120, 'r')));
  AddRaw("handles", RawServer::Answer(std::string(120, 'r')));
  AddRaw("sink", RawServer::Answer("ok"));
  AddRaw("big", RawServer::Answer(Pattern(1024 * 1024)));
  AddRaw("empty", RawServer::Answer(""));
  AddRaw("trickle", [](RawConnection& connection) {
    std::string body = Pattern(1024 * 1024);
    while (TakeRequest(connection)) {
      if (!connection.Send(RawServer::ResponseHead(200, "OK", body.size())) ||
          !connection.SendSlowly(body, 64 * 1024, Milliseconds(20)))
        return;
    }
  });
  AddRaw("missing", [](RawConnection& connection) {
    while (TakeRequest(connection)) {
      if (!connection.Send(RawServer::Response(404, "Not Found", "no such page here\n"))) return;
    }
  });
  AddRaw("stale", [](RawConnection& connection) {
    if (!TakeRequest(connection) || !connection.Send(RawServer::Response(200, "OK", std::string(120, 'r')))) return;
    connection.Hold(Milliseconds(100));
    connection.Close();
  });
  AddRaw("cut", [](RawConnection& connection) {
    if (!TakeRequest(connection)) return;
    connection.Send(RawServer::ResponseHead(200, "OK", 10000) + std::string(4000, 'c'));
    connection.Hold(Milliseconds(200));
    connection.Close();
  });
  AddRaw("silent", [](RawConnection& connection) {
    if (TakeRequest(connection)) connection.Close();
  });
  AddRaw("stall", [hold](RawConnection& connection) {
    if (TakeRequest(connection) && connection.Hold(hold)) connection.Close();
  });
  AddRaw("stallbody", [hold](RawConnection& connection) {
    if (!TakeRequest(connection)) return;
    connection.Send(RawServer::ResponseHead(200, "OK", 100000) + std::string(1000, 's'));
    if (connection.Hold(hold)) connection.Close();
  });
  config.servers["refused"] = "127.0.0.1:" + std::to_string(test::RefusedPort());

  test::TestPki::Options options;
  options.selfSigned = true;
  AddTls("tls-self", options);
  AddTls("tls-good", test::TestPki::Options{});
  options = {};
  options.commonName = "wrong.example.invalid";
  options.addressInAltName = false;
  AddTls("tls-wrongname", options);
  AddTls("tls-wrongname-ignored", options);
  options = {};
  options.validFromDays = -30;
  options.validToDays = -1;
  AddTls("tls-expired", options);
}

ScenarioServers::~ScenarioServers() = default;

void ScenarioServers::AddRaw(const std::string& role, test::RawServer::Script script) {
  raw.emplace_back(role, std::make_unique<test::RawServer>(std::move(script)));
  config.servers[role] = raw.back().second->HostPort();
}

void ScenarioServers::AddTls(const std::string& role, const test::TestPki::Options& options) {
  test::TestPki::ServerFiles files = pki.Issue(role, options);
  tls.push_back(std::make_unique<test::LoopbackServer>(files.certificate, files.key));
  tls.back()->Start();
  config.servers[role] = tls.back()->HostPort();
}

const test::RawServer& ScenarioServers::Raw(const std::string& role) const {
  for (const auto& [name, server] : raw) {
    if (name == role) return *server;
  }
  throw std::out_of_range("no raw server " + role);
}

} // namespace QOR::inettest
