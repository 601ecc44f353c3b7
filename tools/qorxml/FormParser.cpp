#include "FormParser.h"

#include <httplib.h>

#include <cstring>

namespace qorxml {

namespace {

// One request held in memory, as cpp-httplib reads it from a socket.
class MemoryStream : public httplib::Stream {
public:
  explicit MemoryStream(std::string request) : input(std::move(request)) {}

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* ptr, size_t size) override {
    size_t count = std::min(size, input.size() - position);
    std::memcpy(ptr, input.data() + position, count);
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
  std::string input;
  size_t position = 0;
};

// cpp-httplib parses forms only while it serves a request; this server serves one from memory.
class FormServer : private httplib::Server {
public:
  bool Parse(const std::string& contentType, const std::string& body,
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
    set_payload_max_length(body.size() + 1);
    MemoryStream stream("POST / HTTP/1.1\r\nContent-Type: " + contentType +
                        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
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

bool ParseForm(const std::string& contentType, std::string body,
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
  if (EndsWith(body, close)) body += "\r\n";
  return FormServer().Parse(contentType, body, onPart, onData);
}

} // namespace qorxml
