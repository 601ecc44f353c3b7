// Servers on 127.0.0.1 that misbehave on purpose, written on plain sockets so that every byte
// and every close is under the test's control.
//
// A RawServer runs a script for each connection it accepts, on a thread of its own. The script
// reads the request head and body, answers or not, holds, closes or resets. Holds end early when
// the server stops, so a test never waits for a script to finish its sleep.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace QOR::test {

using Milliseconds = std::chrono::milliseconds;

// One accepted connection, as a script sees it.
class RawConnection {
public:
  struct Head {
    std::string requestLine;
    std::vector<std::pair<std::string, std::string>> headers; // in the order received
    std::size_t headBytes = 0;     // bytes up to and with the empty line
    std::size_t contentLength = 0; // from Content-Length, 0 if none
    int connection = 0;            // number of the connection it came on, from 1

    // The value of a header (any case), or empty.
    std::string Header(std::string_view name) const;
  };

  RawConnection(class RawServer& server, int socket, int number);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  // Reads a request head. False when the client closed (or the server stops) first.
  bool ReadHead(Head& head);
  // Reads a request head and its whole body; false when the client went away first.
  bool ReadRequest(Head& head) { return ReadHead(head) && ReadBody(head.contentLength) == head.contentLength; }
  bool ReadRequest() {
    Head head;
    return ReadRequest(head);
  }
  // Reads up to `count` body bytes, into `body` if given. Returns the bytes read, fewer when the
  // client closed.
  std::size_t ReadBody(std::size_t count, std::string* body = nullptr);
  // Sends all of `bytes`; false when the client is gone.
  bool Send(std::string_view bytes);
  // Sends `bytes` in `chunk` pieces with `pause` between them.
  bool SendSlowly(std::string_view bytes, std::size_t chunk, Milliseconds pause);
  // Waits `time`; false when the server stops first.
  bool Hold(Milliseconds time);
  // Waits until the client closes its side (true), or `time` runs out or the server stops.
  bool WaitForClientClose(Milliseconds time);
  // Closes normally (FIN).
  void Close();
  // Closes with a reset (RST): unread data is thrown away.
  void Reset();
  int Number() const { return number; }

private:
  // Waits until the socket is readable (true) or writable; false on time-out or stop.
  bool WaitFor(short events, Milliseconds time);

  class RawServer& server;
  int socket;
  int number;
  std::string buffered; // bytes read past the head
};

class RawServer {
public:
  using Script = std::function<void(RawConnection&)>;

  // Listens on a free port and runs `script` for each connection.
  explicit RawServer(Script script);
  // Stops: holds end, sockets close, script threads are joined.
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  int Port() const { return port; }
  std::string HostPort() const { return "127.0.0.1:" + std::to_string(port); }
  // Connections accepted so far.
  int Connections() const { return accepted.load(); }
  // Heads that scripts read, in order.
  std::vector<RawConnection::Head> Requests() const;
  void Stop();

  // A complete HTTP/1.1 response with Content-Length (and Connection: close when not keepAlive).
  static std::string Response(int status, std::string_view reason, std::string_view body, bool keepAlive = true);
  // Only the status line and headers, announcing `contentLength` body bytes.
  static std::string ResponseHead(int status, std::string_view reason, std::size_t contentLength,
                                  bool keepAlive = true);
  // A script that answers every request on the connection with 200 and `body`.
  static Script Answer(std::string body);

private:
  void AcceptLoop();
  void Record(const RawConnection::Head& head);

  friend class RawConnection;
  Script script;
  int listener = -1;
  int wakePipe[2] = {-1, -1};
  int port = 0;
  std::atomic<bool> stopping{false};
  std::atomic<int> accepted{0};
  std::thread acceptThread;
  mutable std::mutex lock;
  std::vector<std::thread> workers;
  std::vector<int> sockets;
  std::vector<RawConnection::Head> heads;
};

// A port on 127.0.0.1 where nothing listens: connecting is refused.
int RefusedPort();

// A port on 127.0.0.1 whose accept queue is full: a connect there is never answered.
class BlackHole {
public:
  BlackHole();
  ~BlackHole();
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;
  int Port() const { return port; }
  std::string HostPort() const { return "127.0.0.1:" + std::to_string(port); }

private:
  int listener = -1;
  int port = 0;
  std::vector<int> fillers;
};

} // namespace QOR::test
