// The servers of the end-to-end tests, started in this process.
#include "NetServers.h"

#include "support/LoopbackServer.h"
#include "support/RawServer.h"
#include "support/TestPki.h"

#include <chrono>
#include <cstdlib>
#include <vector>

namespace QOR::test {

namespace {

using namespace std::chrono_literals;

std::string PatternBytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xFF);
  return bytes;
}

std::string Base64(const std::string& bytes) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    unsigned group = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 2]);
    text += digits[(group >> 18) & 63];
    text += digits[(group >> 12) & 63];
    text += i + 1 < bytes.size() ? digits[(group >> 6) & 63] : '=';
    text += i + 2 < bytes.size() ? digits[group & 63] : '=';
  }
  return text;
}

// The reply document of a query that went well; every server of the fault matrix answers /doc with it.
const std::string replyDocument = "<?xml version=\"1.0\"?>\r\n<Reply>\r\n<Success>0</Success>\r\n</Reply>\r\n";

void AddDocumentRoute(LoopbackServer& server) {
  server.Routes().Post("/doc", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(replyDocument, "text/xml");
  });
}

// Reads one request; false when the client went first.
bool TakeRequest(RawConnection& connection) {
  RawConnection::Head head;
  return connection.ReadHead(head) && connection.ReadBody(head.contentLength) == head.contentLength;
}

class LocalServers : public NetServerSet {
public:
  LocalServers() {
    for (LoopbackServer* server : {&plain, &secure, &untrusted, &expired, &wrongHost}) AddDocumentRoute(*server);
    plain.Routes().Post("/mirror", [](const httplib::Request& request, httplib::Response& response) {
      std::string text = request.method + " " + request.path + "\n";
      for (const auto& [name, value] : request.headers) text += name + ": " + value + "\n";
      response.set_content(text + "\n" + request.body, "application/octet-stream");
    });
    plain.Routes().Post(R"(/base64/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(Base64(PatternBytes(std::stoul(request.matches[1]))), "text/plain");
    });
    plain.Routes().Post(R"(/text/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
      std::string text;
      for (std::size_t size = std::stoul(request.matches[1]); text.size() < size;) text += "0123456789";
      text.resize(std::stoul(request.matches[1]));
      response.set_content(text, "text/plain");
    });
    plain.Routes().Post("/utf8", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("Gr\xc3\xbc\xc3\x9f"
                           "e \xe2\x82\xac \xe6\x97\xa5\xe6\x9c\xac",
                           "text/plain; charset=utf-8");
    });
    plain.Routes().Post("/port", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(std::to_string(request.remote_port), "text/plain");
    });
    plain.Start();
    secure.Start();
    untrusted.Start();
    expired.Start();
    wrongHost.Start();

    AddRaw("stalled", [](RawConnection& connection) {
      RawConnection::Head head;
      if (!connection.ReadHead(head)) return;
      connection.ReadBody(head.contentLength);
      connection.Hold(30s);
    });
    AddRaw("stall2s", [](RawConnection& connection) {
      RawConnection::Head head;
      if (!connection.ReadHead(head)) return;
      connection.ReadBody(head.contentLength);
      connection.Hold(2s);
      connection.Close();
    });
    AddRaw("sink", [](RawConnection& connection) {
      RawConnection::Head head;
      if (connection.ReadHead(head)) connection.Hold(30s);
    });
    AddRaw("stallbody", [](RawConnection& connection) {
      RawConnection::Head head;
      if (!connection.ReadHead(head)) return;
      connection.ReadBody(head.contentLength);
      connection.Send(RawServer::ResponseHead(200, "OK", 100000));
      connection.Send(std::string(1000, 's'));
      connection.Hold(30s);
    });
    AddRaw("trickle", [](RawConnection& connection) {
      RawConnection::Head head;
      if (!connection.ReadHead(head)) return;
      connection.ReadBody(head.contentLength);
      connection.Send(RawServer::ResponseHead(200, "OK", 60));
      connection.SendSlowly(std::string(60, 't'), 10, 100ms);
      connection.WaitForClientClose(10s);
    });
    AddRaw("reset", [](RawConnection& connection) {
      RawConnection::Head head;
      if (!connection.ReadHead(head)) return;
      connection.ReadBody(head.contentLength);
      connection.Send(RawServer::ResponseHead(200, "OK", 100000));
      connection.Send(std::string(1000, 'r'));
      connection.Hold(100ms);
      connection.Reset();
    });
    // The faults of the matrix that no other test needs.
    // Keep-alive: Wine pools connections across clients, so one connection may carry several requests.
    AddRaw("slowhead", [](RawConnection& connection) {
      while (TakeRequest(connection)) {
        connection.SendSlowly(RawServer::ResponseHead(200, "OK", replyDocument.size()), 8, 15ms);
        connection.Send(replyDocument);
      }
    });
    AddRaw("slowbody", [](RawConnection& connection) {
      while (TakeRequest(connection)) {
        connection.Send(RawServer::ResponseHead(200, "OK", replyDocument.size()));
        connection.SendSlowly(replyDocument, 8, 15ms);
      }
    });
    AddRaw("resethead", [](RawConnection& connection) {
      if (!TakeRequest(connection)) return;
      connection.Send("HTTP/1.1 200 OK\r\nContent-Le");
      connection.Hold(50ms);
      connection.Reset();
    });
    AddRaw("shortbody", [](RawConnection& connection) {
      if (!TakeRequest(connection)) return;
      connection.Send(RawServer::ResponseHead(200, "OK", replyDocument.size() + 1000));
      connection.Send(replyDocument);
      connection.Hold(50ms);
      connection.Close();
    });
    AddRaw("garbage", [](RawConnection& connection) {
      if (!TakeRequest(connection)) return;
      connection.Send("SSH-2.0-OpenSSH_9.2\r\n\x01\x02\xff garbage\r\n\r\n");
      connection.Hold(50ms);
      connection.Close();
    });

    servers.address["plain"] = plain.HostPort();
    servers.address["secure"] = secure.HostPort();
    servers.address["untrusted"] = untrusted.HostPort();
    servers.address["expired"] = expired.HostPort();
    servers.address["wronghost"] = wrongHost.HostPort();
    servers.address["blackhole"] = blackHole.HostPort();
    servers.address["refused"] = "127.0.0.1:" + std::to_string(RefusedPort());
    servers.address["unresolved"] = "no-such-host.invalid";
    servers.caFile = pki.CaFile();
    servers.caDerFile = pki.CaDerFile();
  }

  const NetServers& Servers() const override { return servers; }

private:
  void AddRaw(const std::string& role, RawServer::Script script) {
    raw.push_back(std::make_unique<RawServer>(std::move(script)));
    servers.address[role] = raw.back()->HostPort();
  }
  static TestPki::ServerFiles Issue(TestPki& pki, const std::string& name, bool selfSigned) {
    TestPki::Options options;
    options.selfSigned = selfSigned;
    return pki.Issue(name, options);
  }
  static TestPki::ServerFiles IssueExpired(TestPki& pki) {
    TestPki::Options options;
    options.validFromDays = -60;
    options.validToDays = -30;
    return pki.Issue("expired", options);
  }
  static TestPki::ServerFiles IssueForOtherHost(TestPki& pki) {
    TestPki::Options options;
    options.commonName = "wrong.example.invalid";
    options.addressInAltName = false;
    return pki.Issue("wronghost", options);
  }

  TestPki pki;
  TestPki::ServerFiles secureFiles = Issue(pki, "secure", false);
  TestPki::ServerFiles untrustedFiles = Issue(pki, "untrusted", true);
  TestPki::ServerFiles expiredFiles = IssueExpired(pki);
  TestPki::ServerFiles wrongHostFiles = IssueForOtherHost(pki);
  LoopbackServer plain;
  LoopbackServer secure{secureFiles.certificate, secureFiles.key};
  LoopbackServer untrusted{untrustedFiles.certificate, untrustedFiles.key};
  LoopbackServer expired{expiredFiles.certificate, expiredFiles.key};
  LoopbackServer wrongHost{wrongHostFiles.certificate, wrongHostFiles.key};
  std::vector<std::unique_ptr<RawServer>> raw;
  BlackHole blackHole;
  NetServers servers;
};

} // namespace

std::unique_ptr<NetServerSet> StartNetServers() { return std::make_unique<LocalServers>(); }

bool RunningUnderWine() { return false; }

// libqorinet verifies peers against the file in SSL_CERT_FILE.
bool TrustTestCa(const NetServers& servers) { return setenv("SSL_CERT_FILE", servers.caFile.c_str(), 1) == 0; }

} // namespace QOR::test
