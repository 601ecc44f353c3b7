// Servers that fail or stall: every failure reaches the caller with WinInet's code, nothing is
// resent silently, and a close from another thread ends whatever call is pending.
#include "InetDriver.h"
#include "support/RawServer.h"
#include "support/TestServers.h"

#include <gtest/gtest.h>

#include <thread>

namespace QOR::inettest {
namespace {

using std::chrono::milliseconds;
using test::BlackHole;
using test::RawConnection;
using test::RawServer;

// The step of a request at which a close from another thread comes.
enum class Stuck { Connecting, Writing, Ending, Reading };
const char* const stuckNames[] = {"Connecting", "Writing", "Ending", "Reading"};

class CloseCancelsTest : public testing::TestWithParam<Stuck> {};

// Brings a request to the stuck step and leaves that call pending.
void RunUntilStuck(InetDriver& driver, Stuck stuck, std::string& body) {
  ASSERT_TRUE(driver.OpenRequest("/stuck"));
  driver.AddContentType();
  if (stuck == Stuck::Connecting) {
    ASSERT_TRUE(driver.SendEx(300, false).pending);
    return;
  }
  body.assign(stuck == Stuck::Writing ? 256 * 1024 * 1024 : 300, 'w');
  ASSERT_TRUE(driver.SendEx(static_cast<DWORD>(body.size())).ok);
  if (stuck == Stuck::Writing) {
    // The server reads nothing: once the socket buffers are full a write stays pending.
    for (std::size_t done = 0;; done += 4 * 1024 * 1024) {
      ASSERT_LT(done, body.size());
      auto result = driver.Write(body.data() + done, 4 * 1024 * 1024, false);
      ASSERT_TRUE(result.ok || result.pending);
      if (result.pending && !driver.Wait().completed) return;
    }
  }
  ASSERT_TRUE(driver.WriteAll(body).ok);
  if (stuck == Stuck::Ending) {
    ASSERT_TRUE(driver.End(false).pending);
    return;
  }
  ASSERT_TRUE(driver.End().ok);
  static char buffer[blockSize];
  ASSERT_TRUE(driver.Read(buffer, sizeof buffer, false).pending);
}

TEST_P(CloseCancelsTest, WithinASecondThenHandleClosing) {
  Stuck stuck = GetParam();
  // Stuck connecting: a listener that never accepts; writing: a server that reads no body;
  // ending and reading: the stall servers (no reply; the headers and part of the body).
  BlackHole hole;
  RawServer deaf([](RawConnection& connection) {
    RawConnection::Head head;
    if (connection.ReadHead(head)) connection.Hold(milliseconds(60000));
  });
  const std::string addresses[] = {hole.HostPort(), deaf.HostPort(), test::TheServers()["stall"],
                                   test::TheServers()["stallbody"]};
  InetDriver driver;
  driver.SetWaits(milliseconds(300), milliseconds(3000));
  ASSERT_TRUE(driver.Open() && driver.Connect(addresses[int(stuck)]));
  std::string body;
  RunUntilStuck(driver, stuck, body);
  if (HasFatalFailure()) return;

  HINTERNET request = driver.Request();
  std::this_thread::sleep_for(milliseconds(200)); // stuck for good: its progress reports are in
  std::size_t notesBefore = driver.Notes().size();
  auto closeStart = std::chrono::steady_clock::now();
  std::thread closer([&] { EXPECT_TRUE(driver.CloseHandleOnly(request).ok); });
  closer.join();
  auto closeReturned = std::chrono::steady_clock::now();
  driver.SetWaits(milliseconds(1000), milliseconds(1000));
  auto result = driver.Wait();
  EXPECT_TRUE(result.completed);
  EXPECT_EQ(result.error, static_cast<DWORD>(ERROR_INTERNET_OPERATION_CANCELLED));
  EXPECT_TRUE(driver.WaitClosing(request, 0, milliseconds(1000)));
  EXPECT_LT(closeReturned - closeStart, milliseconds(100));

  // After the close: REQUEST_COMPLETE, then HANDLE_CLOSING, both within the second, nothing more.
  auto notes = driver.Notes();
  std::vector<DWORD> after;
  for (std::size_t i = notesBefore; i < notes.size(); ++i) {
    if (notes[i].handle != request) continue;
    after.push_back(notes[i].status);
    EXPECT_LT(notes[i].when - closeStart, milliseconds(1000));
  }
  EXPECT_EQ(after, (std::vector<DWORD>{INTERNET_STATUS_REQUEST_COMPLETE, INTERNET_STATUS_HANDLE_CLOSING}));
  EXPECT_FALSE(driver.CallbackAfterClosing());
}

INSTANTIATE_TEST_SUITE_P(Steps, CloseCancelsTest,
                         testing::Values(Stuck::Connecting, Stuck::Writing, Stuck::Ending, Stuck::Reading),
                         [](const testing::TestParamInfo<Stuck>& info) { return std::string(stuckNames[int(info.param)]); });

TEST(InetFaultTest, AnswerBeforeTheWholeBodyEndsTheUpload) {
  // The server refuses the body at once and reads none of it: the write in progress completes,
  // and the reply is there to read.
  RawServer server([](RawConnection& connection) {
    RawConnection::Head head;
    if (connection.ReadHead(head) && connection.Send(RawServer::Response(413, "Too Large", "refused", false)))
      connection.WaitForClientClose(milliseconds(10000));
  });
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  std::string reply;
  EXPECT_TRUE(driver.Post("/early", std::string(32 * 1024 * 1024, 'e'), reply).ok);
  EXPECT_EQ(reply, "refused");
}

// A reset in the middle of the reply is ERROR_INTERNET_CONNECTION_RESET too: the engine's fault
// matrix (HttpClientNetTest) has it.
TEST(InetFaultTest, ResetInTheBodyIsConnectionResetAndTheLentBodyIsNotResent) {
  // The first request is answered; the kept-alive connection then dies in the middle of the
  // second request's body.
  RawServer server([](RawConnection& connection) {
    if (!connection.ReadRequest() || !connection.Send(RawServer::Response(200, "OK", "first"))) return;
    RawConnection::Head head;
    if (connection.ReadHead(head)) connection.ReadBody(1000);
    connection.Reset();
  });
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  std::string reply;
  ASSERT_TRUE(driver.Post("/first", "x", reply).ok);
  auto second = driver.Post("/second", std::string(8 * 1024 * 1024, 'y'), reply);
  EXPECT_FALSE(second.ok);
  EXPECT_EQ(second.error, static_cast<DWORD>(ERROR_INTERNET_CONNECTION_RESET));
  // libcurl may connect afresh to try again, but cannot replay a lent body: no third request.
  auto heads = server.Requests();
  ASSERT_EQ(heads.size(), 2u);
  EXPECT_EQ(heads[1].connection, 1);
}

TEST(InetFaultTest, BytesThatCameBeforeABodyWasCutShortAreReadBeforeTheError) {
  // "cut" announces 10 000 bytes, sends 4 000 and closes: the last byte is still there to read
  // once the failure is known.
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(test::TheServers()["cut"]) && driver.OpenRequest("/cut"));
  ASSERT_TRUE(driver.SendEx(0).ok && driver.End().ok);
  char buffer[blockSize];
  EXPECT_EQ(driver.Read(buffer, 3999).bytes, 3999u);
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_EQ(driver.Read(buffer, sizeof buffer).bytes, 1u);
  EXPECT_EQ(driver.Read(buffer, sizeof buffer).error, static_cast<DWORD>(ERROR_INTERNET_CONNECTION_ABORTED));
}

TEST(InetFaultTest, ConnectTimeOutOptionEndsAConnectThatIsNeverAnswered) {
  BlackHole hole;
  InetDriver driver;
  ASSERT_TRUE(driver.Open());
  DWORD timeout = 300;
  ASSERT_TRUE(InternetSetOptionW(driver.Root(), INTERNET_OPTION_CONNECT_TIMEOUT, &timeout, sizeof timeout));
  EXPECT_FALSE(InternetSetOptionW(driver.Root(), 6, &timeout, sizeof timeout));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INTERNET_INVALID_OPTION));
  ASSERT_TRUE(driver.Connect(hole.HostPort()) && driver.OpenRequest("/late"));
  auto start = std::chrono::steady_clock::now();
  auto sent = driver.SendEx(1);
  EXPECT_EQ(sent.error, static_cast<DWORD>(ERROR_INTERNET_TIMEOUT));
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(3000));
}

TEST(InetFaultTest, ClosingTheRootEndsEverythingUnderIt) {
  InetDriver driver;
  driver.SetWaits(milliseconds(200), milliseconds(1000));
  ASSERT_TRUE(driver.Open() && driver.Connect(test::TheServers()["stall"]) && driver.OpenRequest("/stall"));
  ASSERT_TRUE(driver.SendEx(1).ok && driver.Write("x", 1).ok);
  ASSERT_TRUE(driver.End(false).pending);
  HINTERNET request = driver.Request();
  HINTERNET connection = driver.Connection();
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(driver.CloseHandleOnly(driver.Root()).ok);
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
  // The loop thread is gone: everything was reported before the close returned, HANDLE_CLOSING
  // once and last.
  EXPECT_EQ(driver.ClosingsOf(request), 1);
  EXPECT_EQ(driver.ClosingsOf(connection), 1);
  EXPECT_EQ(driver.Wait().error, static_cast<DWORD>(ERROR_INTERNET_OPERATION_CANCELLED));
  EXPECT_FALSE(driver.CallbackAfterClosing());
}

} // namespace
} // namespace QOR::inettest
