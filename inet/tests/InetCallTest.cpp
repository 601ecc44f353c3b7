// The entry points themselves: handles and callbacks, server names, proxies, headers and their
// text, call order, and keep-alive (plain and TLS). Bodies of many blocks both ways are in the
// scenario traces (bigpost, bigreply, trickle).
#include "InetDriver.h"
#include "support/LoopbackServer.h"
#include "support/RawServer.h"
#include "support/TestPki.h"
#include "support/TestServers.h"

#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace QOR::inettest {
namespace {

using test::LoopbackServer;
using test::RawConnection;
using test::RawServer;

int ThreadCount() {
  int count = 0;
  for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

TEST(InetCallTest, RootHandleIsAsynchronousOwnsOneThreadAndItsCloseStopsIt) {
  EXPECT_EQ(InternetOpenW(u"agent", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED));
  // A first root and its close, so that helper threads the runtime starts once are there.
  InternetCloseHandle(InternetOpenW(u"agent", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, INTERNET_FLAG_ASYNC));
  int before = ThreadCount();
  HINTERNET root = InternetOpenW(u"agent", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, INTERNET_FLAG_ASYNC);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(ThreadCount(), before + 1);
  EXPECT_TRUE(InternetCloseHandle(root));
  EXPECT_EQ(ThreadCount(), before);
  EXPECT_FALSE(InternetCloseHandle(root));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

// CPU time this process uses while the test thread sleeps for `time`.
std::chrono::milliseconds CpuWhileSleeping(std::chrono::milliseconds time) {
  auto cpuNow = [] {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  };
  auto before = cpuNow();
  std::this_thread::sleep_for(time);
  return std::chrono::duration_cast<std::chrono::milliseconds>(cpuNow() - before);
}

TEST(InetCallTest, LoopSleepsWhenNothingIsDue) {
  using std::chrono::milliseconds;
  // After a completed request, and with a request whose reply never comes, the loop thread and
  // the closing caller must sleep, not keep watching.
  InetDriver idle;
  std::string reply;
  ASSERT_TRUE(idle.Open() && idle.Connect(test::TheServers()["plain"]) && idle.Post("/echo", "x", reply).ok);
  EXPECT_LT(CpuWhileSleeping(milliseconds(300)).count(), 60);

  InetDriver stalled;
  stalled.SetWaits(milliseconds(300), milliseconds(3000));
  ASSERT_TRUE(stalled.Open() && stalled.Connect(test::TheServers()["stall"]) && stalled.OpenRequest("/stall"));
  ASSERT_TRUE(stalled.SendEx(4).ok && stalled.Write("body", 4).ok);
  ASSERT_TRUE(stalled.End(false).pending);
  EXPECT_LT(CpuWhileSleeping(milliseconds(300)).count(), 60);
  EXPECT_TRUE(stalled.CloseRequest().ok);

  // The kept-alive connection stays watched between requests; when the server closes it, its
  // socket turns readable for good, which must not keep the loop busy. The next request then
  // goes out on a new connection ("stale" closes each connection 0.1 s after its first reply).
  InetDriver pooled;
  ASSERT_TRUE(pooled.Open() && pooled.Connect(test::TheServers()["stale"]) && pooled.Post("/first", "x", reply).ok);
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_LT(CpuWhileSleeping(milliseconds(300)).count(), 60);
  EXPECT_TRUE(pooled.Post("/second", "x", reply).ok);
  EXPECT_EQ(reply, std::string(120, 'r'));
}

void CALLBACK IgnoreStatus(HINTERNET, DWORD_PTR, DWORD, LPVOID, DWORD) {}

TEST(InetCallTest, StatusCallbackSwapsAndLastErrorSurvivesSuccess) {
  HINTERNET root = InternetOpenW(u"agent", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, INTERNET_FLAG_ASYNC);
  EXPECT_EQ(InternetSetStatusCallbackW(root, &IgnoreStatus), nullptr);
  EXPECT_EQ(InternetSetStatusCallbackW(root, nullptr), &IgnoreStatus);
  EXPECT_EQ(InternetSetStatusCallbackW(reinterpret_cast<HINTERNET>(0x7777), &IgnoreStatus),
            INTERNET_INVALID_STATUS_CALLBACK);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  // A call that succeeds leaves the last error as it was.
  EXPECT_EQ(InternetSetStatusCallbackW(root, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  InternetCloseHandle(root);
}

// A server name with a port ("host:port") is what every test here connects with.
TEST(InetCallTest, ServerNamesThatAreNoHostOrHostAndPortAreInvalid) {
  InetDriver driver;
  ASSERT_TRUE(driver.Open());
  for (const char* bad : {"", "[::1", "[]:80", "host:", "host:http", "host:0", "host:65536"}) {
    EXPECT_FALSE(driver.Connect(bad)) << bad;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << bad;
  }
}

TEST(InetCallTest, HeaderModifiersFollowWinInet) {
  RawServer server(RawServer::Answer("ok"));
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  ASSERT_TRUE(driver.OpenRequest("/headers"));
  EXPECT_TRUE(driver.AddHeader("X-One: 1", HTTP_ADDREQ_FLAG_REPLACE).ok); // missing: added
  EXPECT_EQ(driver.AddHeader("X-Two:", HTTP_ADDREQ_FLAG_REPLACE).error,
            static_cast<DWORD>(ERROR_HTTP_HEADER_NOT_FOUND)); // removing what is not there
  EXPECT_TRUE(driver.AddHeader("X-Two: a", HTTP_ADDREQ_FLAG_ADD).ok);
  EXPECT_TRUE(driver.AddHeader("X-Two: b", HTTP_ADDREQ_FLAG_ADD | HTTP_ADDREQ_FLAG_COALESCE_WITH_COMMA).ok);
  EXPECT_EQ(driver.AddHeader("X-Two: c", HTTP_ADDREQ_FLAG_ADD_IF_NEW).error,
            static_cast<DWORD>(ERROR_HTTP_HEADER_ALREADY_EXISTS));
  EXPECT_TRUE(driver.AddHeader("X-Area-Z: 3\r\nX-Four: 4", HTTP_ADDREQ_FLAG_ADD).ok);
  EXPECT_TRUE(driver.AddHeader("x-aREA-z:", HTTP_ADDREQ_FLAG_REPLACE).ok); // names in any case, A to Z
  EXPECT_TRUE(driver.AddHeader("X-One: 11", HTTP_ADDREQ_FLAG_REPLACE).ok);
  for (const char* bad : {"no colon", "X Space: 1", "X,Comma: 1", "X;Semi: 1", "X/Slash: 1"})
    EXPECT_EQ(driver.AddHeader(bad, HTTP_ADDREQ_FLAG_ADD).error, static_cast<DWORD>(ERROR_HTTP_INVALID_HEADER)) << bad;
  // Wide text goes out as UTF-8; a surrogate without its partner becomes U+FFFD.
  std::u16string wide = u"X-Text: \u00E9\u20AC\U0001F600\uD7FF";
  wide += {char16_t(0xDC00), char16_t(0xD800), u'x'};
  EXPECT_TRUE(HttpAddRequestHeadersW(driver.Request(), wide.c_str(), static_cast<DWORD>(-1), HTTP_ADDREQ_FLAG_ADD));
  ASSERT_TRUE(driver.SendEx(0).ok);
  EXPECT_EQ(driver.AddHeader("X-Late: 1", HTTP_ADDREQ_FLAG_ADD).error,
            static_cast<DWORD>(ERROR_INTERNET_INCORRECT_HANDLE_STATE));
  ASSERT_TRUE(driver.End().ok);

  auto heads = server.Requests();
  ASSERT_EQ(heads.size(), 1u);
  EXPECT_EQ(heads[0].Header("X-One"), "11");
  EXPECT_EQ(heads[0].Header("X-Two"), "a, b");
  EXPECT_EQ(heads[0].Header("X-Area-Z"), "");
  EXPECT_EQ(heads[0].Header("X-Four"), "4");
  EXPECT_EQ(heads[0].Header("X-Text"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xED\x9F\xBF\xEF\xBF\xBD\xEF\xBF\xBDx");
  EXPECT_EQ(heads[0].Header("Content-Length"), "0");
  EXPECT_EQ(heads[0].Header("Expect"), "");
  EXPECT_EQ(heads[0].Header("Transfer-Encoding"), "");
}

TEST(InetCallTest, SendWithoutABodyCompletesBeforeTheReply) {
  RawServer server([](RawConnection& connection) {
    while (connection.ReadRequest() && connection.Hold(std::chrono::milliseconds(500)))
      connection.Send(RawServer::Response(200, "OK", "late"));
  });
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  for (auto form : {InetDriver::Block::None, InetDriver::Block::EmptyBuffer}) {
    ASSERT_TRUE(driver.OpenRequest("/empty"));
    driver.SetWaits(std::chrono::milliseconds(250), std::chrono::milliseconds(3000));
    EXPECT_TRUE(driver.SendEx(0, true, form).ok);
    driver.SetWaits(std::chrono::milliseconds(5000), std::chrono::milliseconds(3000));
    EXPECT_TRUE(driver.End().ok);
    std::string reply;
    EXPECT_TRUE(driver.ReadAll(reply).ok);
    EXPECT_EQ(reply, "late");
    EXPECT_TRUE(driver.CloseRequest().ok);
  }
}

TEST(InetCallTest, InterimReplyIsPassedOverAndReceivingIsReportedAtOnce) {
  RawServer server([](RawConnection& connection) {
    if (!connection.ReadRequest() || !connection.Hold(std::chrono::milliseconds(400))) return;
    connection.Send("HTTP/1.1 100 Continue\r\n\r\n");
    if (connection.Hold(std::chrono::milliseconds(300))) connection.Send(RawServer::Response(200, "OK", "final"));
  });
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()) && driver.OpenRequest("/interim"));
  ASSERT_TRUE(driver.SendEx(1).ok && driver.Write("x", 1).ok);
  auto ending = std::chrono::steady_clock::now();
  ASSERT_TRUE(driver.End().ok);
  std::string reply;
  EXPECT_TRUE(driver.ReadAll(reply).ok);
  EXPECT_EQ(reply, "final");
  for (const auto& note : driver.Notes()) {
    if (note.status == INTERNET_STATUS_RECEIVING_RESPONSE)
      EXPECT_LT(note.when - ending, std::chrono::milliseconds(200)); // not held back until the reply
    if (note.status == INTERNET_STATUS_RESPONSE_RECEIVED) EXPECT_EQ(note.value, 16u); // "HTTP/1.1 200 OK"
  }
}

TEST(InetCallTest, ProxyAccessTypeSendsRequestsToTheProxy) {
  RawServer proxy(RawServer::Answer("proxied"));
  InetDriver driver;
  ASSERT_TRUE(driver.Open(INTERNET_OPEN_TYPE_PROXY, proxy.HostPort()) && driver.Connect("origin.invalid", 8080));
  std::string reply;
  EXPECT_TRUE(driver.Post("/via", "x", reply).ok);
  EXPECT_EQ(reply, "proxied");
  ASSERT_EQ(proxy.Requests().size(), 1u);
  EXPECT_EQ(proxy.Requests()[0].requestLine, "POST http://origin.invalid:8080/via HTTP/1.1");
}

TEST(InetCallTest, CallsOutOfOrderFailAtOnce) {
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(test::TheServers()["sink"]) && driver.OpenRequest("/order"));
  char buffer[8];
  constexpr DWORD wrongState = ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  EXPECT_EQ(driver.Write("x", 1).error, wrongState);
  EXPECT_EQ(driver.End().error, wrongState);
  EXPECT_EQ(driver.Read(buffer, sizeof buffer).error, wrongState);
  ASSERT_TRUE(driver.SendEx(4).ok);
  EXPECT_EQ(driver.SendEx(4).error, wrongState);
  EXPECT_EQ(driver.Read(buffer, sizeof buffer).error, wrongState);
  EXPECT_EQ(driver.End().error, wrongState); // the body is not all there
  EXPECT_EQ(driver.Write("12345", 5).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER)); // more than announced
  EXPECT_TRUE(driver.Write("1234", 4).ok);
  EXPECT_TRUE(driver.End().ok);
  std::string reply;
  EXPECT_TRUE(driver.ReadAll(reply).ok);
  EXPECT_EQ(reply, "ok");
  // Wrong kinds of handle.
  EXPECT_EQ(HttpOpenRequestA(driver.Root(), "POST", "/", nullptr, nullptr, nullptr, 0, 1), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INTERNET_INCORRECT_HANDLE_TYPE));
  EXPECT_FALSE(HttpEndRequestW(driver.Connection(), nullptr, 0, 1));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INTERNET_INCORRECT_HANDLE_TYPE));
}

// The descriptors registered in this process's epoll sets, from /proc/self/fdinfo.
std::vector<std::string> EpollRegistrations() {
  std::vector<std::string> registered;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry.path(), error).string() != "anon_inode:[eventpoll]") continue;
    std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
    std::string line;
    while (std::getline(info, line))
      if (line.rfind("tfd:", 0) == 0) registered.push_back(line.substr(0, line.find(" events")));
  }
  std::sort(registered.begin(), registered.end());
  return registered;
}

TEST(InetCallTest, PooledConnectionStaysRegisteredBetweenRequestsPlainOrSecure) {
  test::TestPki::ServerFiles files = test::TestPki::Server(test::TestPki::Kind::trusted);
  setenv("SSL_CERT_FILE", test::TestPki::CaFile().c_str(), 1);
  LoopbackServer plain, secure(files.certificate, files.key);
  for (auto [server, flags] : {std::pair{&plain, engineFlags}, std::pair{&secure, engineSecureFlags}}) {
    server->Start();
    InetDriver driver;
    ASSERT_TRUE(driver.Open() && driver.Connect(server->HostPort()));
    std::vector<std::string> idle = EpollRegistrations();
    std::string reply;
    ASSERT_TRUE(driver.Post("/echo", "first", reply, flags).ok);
    // The loop's wake-up and timer descriptors, and now the connection's watch.
    std::vector<std::string> pooled = EpollRegistrations();
    EXPECT_EQ(pooled.size(), idle.size() + 1);
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i) {
      std::string body(70000, static_cast<char>('a' + i));
      ASSERT_TRUE(driver.Post("/echo", body, reply, flags).ok) << i;
      EXPECT_EQ(reply, body);
      EXPECT_EQ(EpollRegistrations(), pooled) << "request " << i << " registered its socket anew";
    }
    // A head held back to leave with its body goes with the body's first bytes: held on, the
    // kernel would send the rest 200 ms later, in every request.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));
    EXPECT_EQ(server->Connections(), 1u);
  }
  unsetenv("SSL_CERT_FILE");
}

} // namespace
} // namespace QOR::inettest
