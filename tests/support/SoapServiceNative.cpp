// The fake web service, on a raw server so that request bodies arrive exactly as sent.
#include "SoapService.h"

#include "RawServer.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace QOR::test {

namespace {

struct FormPart {
  std::string name;
  std::string fileName;
  bool isFile = false;
  std::string content;
};

// The text between `key="` and the next quote in a part's headers.
bool QuotedValue(const std::string& headers, const std::string& key, std::string& value) {
  std::size_t start = headers.find(key + "=\"");
  if (start == std::string::npos) return false;
  start += key.size() + 2;
  value = headers.substr(start, headers.find('"', start) - start);
  return true;
}

std::vector<FormPart> ParseForm(const std::string& body, const std::string& boundary) {
  std::vector<FormPart> parts;
  const std::string delimiter = "--" + boundary;
  std::size_t at = body.find(delimiter);
  while (at != std::string::npos) {
    std::size_t start = at + delimiter.size();
    if (body.compare(start, 2, "--") == 0) break; // the closing delimiter
    start += 2;
    std::size_t next = body.find("\r\n" + delimiter, start);
    if (next == std::string::npos) break;
    std::string part = body.substr(start, next - start);
    std::size_t headersEnd = part.find("\r\n\r\n");
    if (headersEnd == std::string::npos) break;
    std::string headers = part.substr(0, headersEnd);
    FormPart parsed;
    QuotedValue(headers, " name", parsed.name);
    parsed.isFile = QuotedValue(headers, "filename", parsed.fileName);
    parsed.content = part.substr(headersEnd + 4);
    parts.push_back(std::move(parsed));
    at = next + 2;
  }
  return parts;
}

std::string FieldValue(const std::vector<FormPart>& parts, const std::string& name) {
  for (const FormPart& part : parts)
    if (part.name == name) return part.content;
  return "";
}

std::string ReplyDocument(const std::string& payload) {
  return "<?xml version=\"1.0\"?>\r\n<Reply>\r\n\t<Success>0</Success>\r\n" + payload + "</Reply>\r\n";
}

class LocalSoapService : public SoapServiceRun {
public:
  LocalSoapService() : server([this](RawConnection& connection) { Serve(connection); }) {
    addresses.service = server.HostPort();
    addresses.refused = "127.0.0.1:" + std::to_string(RefusedPort());
  }
  ~LocalSoapService() override { server.Stop(); }

  const SoapServiceAddresses& Addresses() const override { return addresses; }

private:
  void Serve(RawConnection& connection) {
    RawConnection::Head head;
    std::string body;
    while (connection.ReadHead(head) && connection.ReadBody(head.contentLength, body)) {
      std::string reply;
      if (!Answer(connection, head, body, reply)) return;
      if (!connection.Send(RawServer::Response(200, "OK", reply))) return;
    }
  }

  // The reply for one request; false when the service stops first.
  bool Answer(RawConnection& connection, const RawConnection::Head& head, const std::string& body,
              std::string& reply) {
    std::string line = head.requestLine;
    std::string path = line.substr(line.find(' ') + 1);
    path = path.substr(0, path.find(' '));
    std::string type = head.Header("Content-Type");
    std::size_t boundaryAt = type.find("boundary=");
    auto parts = ParseForm(body, boundaryAt == std::string::npos ? "" : type.substr(boundaryAt + 9));

    if (path == "/echo") {
      reply = body;
    } else if (path == "/fields") {
      std::string payload;
      for (const FormPart& part : parts) {
        payload += "\t<Field name=\"" + part.name + "\"";
        if (part.isFile) payload += " file=\"" + part.fileName + "\"";
        payload += ">" + part.content + "</Field>\r\n";
      }
      reply = ReplyDocument(payload);
    } else if (path == "/order") {
      reply = ReplyDocument("\t<Order>" + std::to_string(++orders) + "</Order>\r\n\t<Caller>" +
                            FieldValue(parts, "caller") + "</Caller>\r\n");
    } else if (path == "/slow") {
      if (!connection.Hold(Milliseconds(std::stol("0" + FieldValue(parts, "ms"))))) return false;
      reply = FieldValue(parts, "reply");
    } else if (path == "/php/SafeTrace.php") {
      std::lock_guard<std::mutex> hold(lock);
      ++uploads;
      lastUpload = body;
      reply = ReplyDocument("");
    } else if (path == "/uploads") {
      std::lock_guard<std::mutex> hold(lock);
      reply = std::to_string(uploads) + "\r\n" + lastUpload;
    } else {
      reply = FieldValue(parts, "reply");
    }
    return true;
  }

  std::atomic<int> orders{0};
  std::mutex lock;
  int uploads = 0;
  std::string lastUpload;
  SoapServiceAddresses addresses;
  RawServer server;
};

} // namespace

std::unique_ptr<SoapServiceRun> StartSoapService() { return std::make_unique<LocalSoapService>(); }

bool RunningOnWine() { return false; }

} // namespace QOR::test
