// The servers of TestServers.h, started in this process.
#include "TestServers.h"

#include "FormParts.h"
#include "LoopbackServer.h"
#include "RawServer.h"
#include "TestPki.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace QOR::test {

namespace {

using namespace std::chrono_literals;

std::string ReplyDocument(const std::string& payload) {
  return "<?xml version=\"1.0\"?>\r\n<Reply>\r\n\t<Success>0</Success>\r\n" + payload + "</Reply>\r\n";
}
// The reply document of a query that went well.
const std::string replyDocument = ReplyDocument("");

// ---- the fake web service (see SoapService.h) ----

std::string FieldValue(const std::vector<FormPart>& parts, const std::string& name) {
  for (const FormPart& part : parts)
    if (part.name == name) return part.content;
  return "";
}

class SoapService {
public:
  void Serve(RawConnection& connection) {
    RawConnection::Head head;
    std::string body;
    while (connection.ReadHead(head) && connection.ReadBody(head.contentLength, &body) == head.contentLength) {
      std::string reply;
      int fault = -1;
      if (!Answer(connection, head, body, reply, fault)) return;
      if (fault == 0) return connection.Reset();
      if (fault == 1) return connection.Close();
      if (fault == 2) {
        connection.Send("220 service ready\r\n");
        return connection.Close();
      }
      if (fault == 3) {
        connection.Send(RawServer::ResponseHead(200, "OK", reply.size()) + reply.substr(0, reply.size() / 2));
        connection.Hold(Milliseconds(5));
        return connection.Reset();
      }
      if (fault == 5 || fault == 6) connection.Hold(Milliseconds(10));
      if (!connection.Send(RawServer::Response(200, "OK", reply))) return;
    }
  }

private:
  // The reply for one request; false when the service stops first.
  bool Answer(RawConnection& connection, const RawConnection::Head& head, const std::string& body,
              std::string& reply, int& fault) {
    std::string path = head.requestLine.substr(head.requestLine.find(' ') + 1);
    path = path.substr(0, path.find(' '));
    std::string type = head.Header("Content-Type");
    std::size_t boundaryAt = type.find("boundary=");
    const auto parts = ParseForm(body, boundaryAt == std::string::npos ? "" : type.substr(boundaryAt + 9))
                           .value_or(std::vector<FormPart>());
    if (path == "/slow") {
      reply = FieldValue(parts, "reply");
      return connection.Hold(Milliseconds(std::stol("0" + FieldValue(parts, "ms"))));
    }
    std::lock_guard<std::mutex> hold(lock);
    if (path == "/echo") {
      reply = body;
    } else if (path == "/fields") {
      std::string payload;
      for (const FormPart& part : parts) {
        payload += "\t<Field name=\"" + part.name + "\"";
        if (part.fileName) payload += " file=\"" + *part.fileName + "\"";
        payload += ">" + part.content + "</Field>\r\n";
      }
      reply = ReplyDocument(payload);
    } else if (path == "/order" || path == "/flaky") {
      reply = ReplyDocument("\t<Order>" + std::to_string(++orders) + "</Order>\r\n\t<Caller>" +
                            FieldValue(parts, "caller") + "</Caller>\r\n");
      // The same in 95 of 100 requests, 2 of them late; else a reset before the answer, a close
      // without one, a line that is no HTTP, a reset halfway through the body, the error status.
      if (path == "/flaky") fault = static_cast<int>(flakies++ * 37 % 100);
      if (fault == 4) reply.replace(reply.find("<Success>0"), 10, "<Success>3");
    } else if (path == "/php/SafeTrace.php") {
      ++uploads;
      lastUpload = body;
      reply = ReplyDocument("");
    } else if (path == "/uploads") {
      reply = std::to_string(uploads) + "\r\n" + lastUpload;
    } else {
      reply = FieldValue(parts, "reply");
    }
    return true;
  }

  std::mutex lock;
  int orders = 0;
  unsigned flakies = 0;
  int uploads = 0;
  std::string lastUpload;
};

// ---- the set ----

class LocalServers : public ServerSet {
public:
  explicit LocalServers(int holdMs) {
    Milliseconds hold(holdMs);
    AddPlain();
    AddTls("secure", TestPki::Kind::trusted);
    AddTls("untrusted", TestPki::Kind::untrusted);
    AddTls("expired", TestPki::Kind::expired);
    AddTls("wronghost", TestPki::Kind::wronghost);
    AddTls("wronghost2", TestPki::Kind::wronghost);

    AddRaw("soap", [this](RawConnection& connection) { soap.Serve(connection); });
    AddRaw("answer", RawServer::Answer(std::string(120, 'r')));
    AddRaw("handles", RawServer::Answer(std::string(120, 'r')));
    AddRaw("sink", RawServer::Answer("ok"));
    AddRaw("big", RawServer::Answer(PatternBytes(1024 * 1024)));
    AddRaw("empty", RawServer::Answer(""));
    AddRaw("trickle", [](RawConnection& connection) {
      std::string body = PatternBytes(1024 * 1024);
      while (connection.ReadRequest()) {
        if (!connection.Send(RawServer::ResponseHead(200, "OK", body.size())) ||
            !connection.SendSlowly(body, 64 * 1024, 20ms))
          return;
      }
    });
    AddRaw("missing", [](RawConnection& connection) {
      while (connection.ReadRequest())
        if (!connection.Send(RawServer::Response(404, "Not Found", "no such page here\n"))) return;
    });
    AddRaw("stale", [](RawConnection& connection) {
      if (!connection.ReadRequest() || !connection.Send(RawServer::Response(200, "OK", std::string(120, 'r')))) return;
      connection.Hold(100ms);
      connection.Close();
    });
    AddRaw("cut", [](RawConnection& connection) {
      if (!connection.ReadRequest()) return;
      connection.Send(RawServer::ResponseHead(200, "OK", 10000) + std::string(4000, 'c'));
      connection.Hold(200ms);
      connection.Close();
    });
    AddRaw("silent", [](RawConnection& connection) {
      if (connection.ReadRequest()) connection.Close();
    });
    AddRaw("stall", [hold](RawConnection& connection) {
      if (connection.ReadRequest() && connection.Hold(hold)) connection.Close();
    });
    AddRaw("stall2s", [](RawConnection& connection) {
      if (connection.ReadRequest() && connection.Hold(2s)) connection.Close();
    });
    AddRaw("stallbody", [hold](RawConnection& connection) {
      if (!connection.ReadRequest()) return;
      connection.Send(RawServer::ResponseHead(200, "OK", 100000) + std::string(1000, 's'));
      if (connection.Hold(hold)) connection.Close();
    });
    AddRaw("reset", [](RawConnection& connection) {
      if (!connection.ReadRequest()) return;
      connection.Send(RawServer::ResponseHead(200, "OK", 100000) + std::string(1000, 'r'));
      connection.Hold(100ms);
      connection.Reset();
    });
    // Keep-alive: Wine pools connections across clients, so one connection may carry several requests.
    AddRaw("slowhead", [](RawConnection& connection) {
      while (connection.ReadRequest()) {
        connection.SendSlowly(RawServer::ResponseHead(200, "OK", replyDocument.size()), 8, 15ms);
        connection.Send(replyDocument);
      }
    });
    AddRaw("slowbody", [](RawConnection& connection) {
      while (connection.ReadRequest()) {
        connection.Send(RawServer::ResponseHead(200, "OK", replyDocument.size()));
        connection.SendSlowly(replyDocument, 8, 15ms);
      }
    });
    AddRaw("resethead", [](RawConnection& connection) {
      if (!connection.ReadRequest()) return;
      connection.Send("HTTP/1.1 200 OK\r\nContent-Le");
      connection.Hold(50ms);
      connection.Reset();
    });
    AddRaw("shortbody", [](RawConnection& connection) {
      if (!connection.ReadRequest()) return;
      connection.Send(RawServer::ResponseHead(200, "OK", replyDocument.size() + 1000) + replyDocument);
      connection.Hold(50ms);
      connection.Close();
    });
    AddRaw("garbage", [](RawConnection& connection) {
      if (!connection.ReadRequest()) return;
      connection.Send("SSH-2.0-OpenSSH_9.2\r\n\x01\x02\xff garbage\r\n\r\n");
      connection.Hold(50ms);
      connection.Close();
    });
    servers.address["refused"] = "127.0.0.1:" + std::to_string(RefusedPort());
    servers.address["unresolved"] = "no-such-host.invalid";
    servers.caFile = TestPki::CaFile();
    servers.caDerFile = TestPki::CaDerFile();
  }
  ~LocalServers() override {
    for (auto& [role, server] : raw) server->Stop();
  }

  const ServerAddresses& Addresses() const override { return servers; }
  const RawServer& Raw(const std::string& role) const override {
    auto found = raw.find(role);
    if (found == raw.end()) throw std::out_of_range("no raw server " + role);
    return *found->second;
  }

private:
  // Adds the /doc route, starts the server and records its address.
  void Add(const std::string& role, std::unique_ptr<LoopbackServer> server) {
    server->Routes().Post("/doc", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(replyDocument, "text/xml");
    });
    server->Start();
    servers.address[role] = server->HostPort();
    loopback.push_back(std::move(server));
  }
  void AddTls(const std::string& role, TestPki::Kind kind) {
    TestPki::ServerFiles files = TestPki::Server(kind);
    Add(role, std::make_unique<LoopbackServer>(files.certificate, files.key));
  }
  void AddRaw(const std::string& role, RawServer::Script script) {
    raw[role] = std::make_unique<RawServer>(std::move(script));
    servers.address[role] = raw[role]->HostPort();
  }
  void AddPlain() {
    auto plain = std::make_unique<LoopbackServer>();
    auto& routes = plain->Routes();
    routes.Post("/mirror", [](const httplib::Request& request, httplib::Response& response) {
      std::string text = request.method + " " + request.path + "\n";
      for (const auto& [name, value] : request.headers) text += name + ": " + value + "\n";
      response.set_content(text + "\n" + request.body, "application/octet-stream");
    });
    routes.Post(R"(/base64/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(Base64Text(PatternBytes(std::stoul(request.matches[1]))), "text/plain");
    });
    routes.Post(R"(/text/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
      std::string text;
      for (std::size_t size = std::stoul(request.matches[1]); text.size() < size;) text += "0123456789";
      text.resize(std::stoul(request.matches[1]));
      response.set_content(text, "text/plain");
    });
    routes.Post("/utf8", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("Gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac \xe6\x97\xa5\xe6\x9c\xac", "text/plain; charset=utf-8");
    });
    Add("plain", std::move(plain));
  }

  SoapService soap;
  std::vector<std::unique_ptr<LoopbackServer>> loopback;
  std::map<std::string, std::unique_ptr<RawServer>> raw;
  ServerAddresses servers;
};

} // namespace

std::unique_ptr<ServerSet> StartServers(int holdMs) { return std::make_unique<LocalServers>(holdMs); }

bool RunningOnWine() { return false; }

// libqorinet verifies peers against the file in SSL_CERT_FILE.
bool TrustTestCa(const ServerAddresses& servers) { return setenv("SSL_CERT_FILE", servers.caFile.c_str(), 1) == 0; }

void ForgetTestCa() { unsetenv("SSL_CERT_FILE"); }

} // namespace QOR::test
