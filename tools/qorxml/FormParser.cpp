#include "FormParser.h"

#include <httplib.h>

#include <cstring>

namespace qorxml {

namespace {

// One request held in memory, as cpp-httplib reads it from a socket: its head, then the body,
// then what the body lacks at its end. The body is read where it lies.
class MemoryStream : public httplib::Stream {
public:
  MemoryStream(std::string head, const std::string& body, std::string tail)
      : pieces{std::move(head), std::string(), std::move(tail)}, body(body) {}

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* ptr, size_t size) override {
    while (piece < 3 && position == Piece().size()) {
      ++piece;
      position = 0;
    }
    if (piece == 3) return 0;
    size_t count = std::min(size, Piece().size() - position);
    std::memcpy(ptr, Piece().data() + position, count);
    position += count;
    return static_cast<ssize_t>(count);
  }
  ssize_t write(const char*, size_t size) override { return static_cast<ssize_t>(size); }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = "127.0.0.1";
    port = 0;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override { get_remote_ip_and_port(ip, port); }
  socket_t socket() const override { return INVALID_SOCKET; }

private:
  const std::string& Piece() const { return piece == 1 ? body : pieces[piece]; }

  std::string pieces[3];
  const std::string& body;
  int piece = 0;
  size_t position = 0;
};

// cpp-httplib parses forms only while it serves a request; this server serves one from memory.
class FormServer : private httplib::Server {
public:
  bool Parse(const std::string& contentType, const std::string& body, const std::string& tail,
             const std::function<bool(const FormPartHead&)>& onPart,
             const std::function<bool(const char*, std::size_t)>& onData) {
    bool parsed = false;
    Post("/", [&](const httplib::Request&, httplib::Response&, const httplib::ContentReader& reader) {
      parsed = reader(
          [&](const httplib::MultipartFormData& head) {
            return onPart({head.name, head.filename, !head.filename.empty()});
          },
          [&](const char* data, size_t length) { return onData(data, length); });
    });
    std::size_t length = body.size() + tail.size();
    set_payload_max_length(length + 1);
    MemoryStream stream("POST / HTTP/1.1\r\nContent-Type: " + contentType + "\r\nContent-Length: " +
                            std::to_string(length) + "\r\n\r\n",
                        body, tail);
    bool closed = false;
    process_request(stream, true, closed, nullptr);
    return parsed;
  }
};

std::string Boundary(const std::string& contentType) {
  auto at = contentType.find("boundary=");
  if (at == std::string::npos) return "";
  std::string boundary = contentType.substr(at + 9);
  boundary = boundary.substr(0, boundary.find(';'));
  if (boundary.size() >= 2 && boundary.front() == '"' && boundary.back() == '"')
    boundary = boundary.substr(1, boundary.size() - 2);
  return boundary;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

bool ParseForm(const std::string& contentType, const std::string& body,
               const std::function<bool(const FormPartHead&)>& onPart,
               const std::function<bool(const char*, std::size_t)>& onData) {
  std::string boundary = Boundary(contentType);
  if (boundary.empty()) return false;
  const std::string close = "--" + boundary + "--";
  // A form without parts is the close delimiter alone, which cpp-httplib does not take.
  if (body == close || body == "\r\n" + close || body == close + "\r\n" || body == "\r\n" + close + "\r\n")
    return true;
  // RFC 2046 lets a body end right after the close delimiter, as the library's bodies do;
  // cpp-httplib wants a line end there.
  return FormServer().Parse(contentType, body, EndsWith(body, close) ? "\r\n" : "", onPart, onData);
}

} // namespace qorxml
