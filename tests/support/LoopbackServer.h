// An HTTP or HTTPS server on 127.0.0.1 and a port of its own, running on its own threads for
// the life of the object. Tests add routes before Start; a few common ones are there already:
//   POST /echo          answers with the request body
//   any  /bytes/<n>     answers with n bytes ("0123456789" repeated), streamed
//   POST /discard       reads the body as it comes and answers with its size in decimal
//   any  /status/<n>    answers with status n and the body "no such page here\n"
// Every request is recorded with the client's port, so a test can tell TCP connections apart.
#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QOR::test {

class LoopbackServer {
public:
  struct Seen {
    std::string method;
    std::string path;
    httplib::Headers headers;
    std::size_t bodySize = 0;
    int clientPort = 0;
  };

  // A plain HTTP server.
  LoopbackServer();
  // An HTTPS server with this certificate and key (PEM files).
  LoopbackServer(const std::string& certificateFile, const std::string& keyFile);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // The routes; add to them before Start.
  httplib::Server& Routes() { return *server; }
  // Binds, starts serving and waits until the server accepts (at most 10 s).
  void Start();
  // Stops serving and joins; the destructor does it too.
  void Stop();

  int Port() const { return port; }
  // "127.0.0.1:<port>", the server name for a connection handle.
  std::string HostPort() const { return "127.0.0.1:" + std::to_string(port); }
  std::vector<Seen> Requests() const;
  // Distinct client ports among the requests so far: the TCP connections they came on.
  std::size_t Connections() const;

private:
  void AddCommonRoutes();

  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  int port = 0;
  mutable std::mutex lock;
  std::vector<Seen> seen;
};

} // namespace QOR::test
