#include "RawServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace QOR::test {

namespace {

constexpr Milliseconds patience(120000); // a client that says nothing for this long is gone

int ListenOnLoopback(int backlog, int& port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("RawServer: no socket");
  int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, backlog) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    throw std::runtime_error("RawServer: cannot listen");
  }
  port = ntohs(address.sin_port);
  return fd;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return Lower(x) == Lower(y); });
}

} // namespace

// ---- RawConnection ----

std::string RawConnection::Head::Header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (SameName(key, name)) return value;
  }
  return {};
}

RawConnection::RawConnection(RawServer& server, int socket, int number)
    : server(server), socket(socket), number(number) {}

RawConnection::~RawConnection() {
  if (socket >= 0) ::close(socket);
}

bool RawConnection::WaitFor(short events, Milliseconds time) {
  if (socket < 0) return false;
  pollfd fds[2] = {{socket, events, 0}, {server.wakePipe[0], POLLIN, 0}};
  int ready = ::poll(fds, 2, static_cast<int>(time.count()));
  if (ready <= 0 || server.stopping.load()) return false;
  return (fds[0].revents & (events | POLLHUP | POLLERR)) != 0;
}

bool RawConnection::ReadHead(Head& head) {
  std::size_t end;
  while ((end = buffered.find("\r\n\r\n")) == std::string::npos) {
    if (!WaitFor(POLLIN, patience)) return false;
    char block[16 * 1024];
    ssize_t got = ::recv(socket, block, sizeof block, 0);
    if (got <= 0) return false;
    buffered.append(block, static_cast<std::size_t>(got));
  }
  std::string text = buffered.substr(0, end + 2);
  buffered.erase(0, end + 4);
  head = Head{};
  head.headBytes = end + 4;
  head.connection = number;
  std::size_t lineEnd = text.find("\r\n");
  head.requestLine = text.substr(0, lineEnd);
  for (std::size_t start = lineEnd + 2; start < text.size();) {
    std::size_t stop = text.find("\r\n", start);
    std::string line = text.substr(start, stop - start);
    start = stop + 2;
    std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    head.headers.emplace_back(line.substr(0, colon), value);
  }
  std::string length = head.Header("Content-Length");
  head.contentLength = length.empty() ? 0 : std::stoull(length);
  server.Record(head);
  return true;
}

std::size_t RawConnection::ReadBody(std::size_t count, std::string* body) {
  std::size_t done = std::min(count, buffered.size());
  if (body) body->assign(buffered, 0, done);
  buffered.erase(0, done);
  std::vector<char> block(256 * 1024);
  while (done < count && WaitFor(POLLIN, patience)) {
    ssize_t got = ::recv(socket, block.data(), std::min(block.size(), count - done), 0);
    if (got <= 0) break;
    if (body) body->append(block.data(), static_cast<std::size_t>(got));
    done += static_cast<std::size_t>(got);
  }
  return done;
}

bool RawConnection::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!WaitFor(POLLOUT, patience)) return false;
    ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool RawConnection::SendSlowly(std::string_view bytes, std::size_t chunk, Milliseconds pause) {
  while (!bytes.empty()) {
    std::size_t piece = std::min(chunk, bytes.size());
    if (!Send(bytes.substr(0, piece))) return false;
    bytes.remove_prefix(piece);
    if (!bytes.empty() && !Hold(pause)) return false;
  }
  return true;
}

bool RawConnection::Hold(Milliseconds time) {
  pollfd wake{server.wakePipe[0], POLLIN, 0};
  ::poll(&wake, 1, static_cast<int>(time.count()));
  return !server.stopping.load();
}

bool RawConnection::WaitForClientClose(Milliseconds time) {
  auto deadline = std::chrono::steady_clock::now() + time;
  for (;;) {
    auto left = std::chrono::duration_cast<Milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !WaitFor(POLLIN, left)) return false;
    char block[16 * 1024];
    ssize_t got = ::recv(socket, block, sizeof block, 0);
    if (got <= 0) return true;
  }
}

void RawConnection::Close() {
  if (socket < 0) return;
  ::shutdown(socket, SHUT_WR);
  ::close(socket);
  socket = -1;
}

void RawConnection::Reset() {
  if (socket < 0) return;
  linger hard{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  ::close(socket);
  socket = -1;
}

// ---- RawServer ----

RawServer::RawServer(Script script) : script(std::move(script)) {
  if (::pipe2(wakePipe, O_CLOEXEC) != 0) throw std::runtime_error("RawServer: no pipe");
  listener = ListenOnLoopback(64, port);
  acceptThread = std::thread([this] { AcceptLoop(); });
}

RawServer::~RawServer() {
  Stop();
  ::close(wakePipe[0]);
  ::close(wakePipe[1]);
}

void RawServer::Stop() {
  if (stopping.exchange(true)) return;
  char wake = 1;
  (void)!::write(wakePipe[1], &wake, 1); // stays readable: every poll on it returns from now on
  acceptThread.join();
  ::close(listener);
  std::vector<std::thread> running;
  {
    std::lock_guard<std::mutex> guard(lock);
    running.swap(workers);
  }
  for (std::thread& worker : running) worker.join();
}

void RawServer::AcceptLoop() {
  for (;;) {
    pollfd fds[2] = {{listener, POLLIN, 0}, {wakePipe[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (stopping.load()) return;
    if (!(fds[0].revents & POLLIN)) continue;
    int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    int yes = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    int number = ++accepted;
    std::lock_guard<std::mutex> guard(lock);
    workers.emplace_back([this, fd, number] {
      RawConnection connection(*this, fd, number);
      script(connection);
    });
  }
}

void RawServer::Record(const RawConnection::Head& head) {
  std::lock_guard<std::mutex> guard(lock);
  heads.push_back(head);
}

std::vector<RawConnection::Head> RawServer::Requests() const {
  std::lock_guard<std::mutex> guard(lock);
  return heads;
}

std::string RawServer::ResponseHead(int status, std::string_view reason, std::size_t contentLength,
                                    bool keepAlive) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + std::string(reason) + "\r\n";
  head += "Content-Type: text/plain\r\nContent-Length: " + std::to_string(contentLength) + "\r\n";
  if (!keepAlive) head += "Connection: close\r\n";
  return head + "\r\n";
}

std::string RawServer::Response(int status, std::string_view reason, std::string_view body, bool keepAlive) {
  return ResponseHead(status, reason, body.size(), keepAlive) + std::string(body);
}

RawServer::Script RawServer::Answer(std::string body) {
  return [body = std::move(body)](RawConnection& connection) {
    while (connection.ReadRequest())
      if (!connection.Send(Response(200, "OK", body))) return;
  };
}

// ---- refused port, black hole ----

int RefusedPort() {
  int port = 0;
  int fd = ListenOnLoopback(1, port);
  ::close(fd);
  return port;
}

BlackHole::BlackHole() {
  listener = ListenOnLoopback(0, port);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  // Fill the accept queue with connections nobody accepts; further SYNs are dropped.
  for (int i = 0; i < 3; ++i) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    fillers.push_back(fd);
  }
  ::usleep(100 * 1000);
}

BlackHole::~BlackHole() {
  for (int fd : fillers) ::close(fd);
  ::close(listener);
}

} // namespace QOR::test
