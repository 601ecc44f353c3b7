// Volume and races, meant for the sanitizer builds: many requests on roots on many threads, and
// closes that land at random points of a request.
#include "InetDriver.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

namespace QOR::inettest {
namespace {

using std::chrono::milliseconds;
using test::LoopbackServer;

class InetStressTest : public testing::Test {
protected:
  void SetUp() override { server.Start(); }
  LoopbackServer server;
};

TEST_F(InetStressTest, EightRootsOnTheirOwnThreadsEachKeepOneConnection) {
  std::vector<std::thread> threads;
  std::atomic<int> succeeded{0}, receiving{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      InetDriver driver;
      if (!driver.Open() || !driver.Connect(server.HostPort())) return;
      for (int i = 0; i < 125; ++i) {
        std::string body = "thread " + std::to_string(t) + " request " + std::to_string(i) + std::string(300, 'a');
        std::string reply;
        if (driver.Post("/echo", body, reply).ok && reply == body) ++succeeded;
      }
      EXPECT_FALSE(driver.CallbackAfterClosing());
      // Every HttpEndRequest reports RECEIVING_RESPONSE, however early the reply came.
      for (const InetDriver::Note& note : driver.Notes())
        receiving += note.status == INTERNET_STATUS_RECEIVING_RESPONSE ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(succeeded.load(), 1000);
  EXPECT_EQ(receiving.load(), 1000);
  EXPECT_EQ(server.Connections(), 8u);
}

// The engine's cancel: another thread closes the request handle while the caller is somewhere in
// the request. Whatever the caller is doing ends at once; HANDLE_CLOSING comes exactly once and
// last; the connection handle goes on serving.
TEST_F(InetStressTest, ClosesAtRandomPointsOfFiveHundredRequests) {
  InetDriver driver;
  driver.SetWaits(milliseconds(5000), milliseconds(5000));
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  std::mt19937 random(20240601);
  std::uniform_int_distribution<int> delay(0, 1500);
  const std::string body(20000, 'r');
  for (int i = 0; i < 500; ++i) {
    ASSERT_TRUE(driver.OpenRequest("/echo")) << i;
    HINTERNET request = driver.Request();
    int closingsBefore = driver.ClosingsOf(request);
    std::chrono::microseconds wait(delay(random));
    std::thread closer([&] {
      std::this_thread::sleep_for(wait);
      driver.CloseHandleOnly(request);
    });
    std::string reply;
    auto step = driver.Exchange(body, reply);
    // A pending call always came back: by success, by its failure, or by the cancel.
    EXPECT_FALSE(step.pending && !step.completed) << i;
    if (step.ok) EXPECT_TRUE(reply == body) << i << ": " << reply.size() << " bytes";
    closer.join();
    ASSERT_TRUE(driver.WaitClosing(request, closingsBefore, milliseconds(5000))) << i;
    EXPECT_EQ(driver.ClosingsOf(request), closingsBefore + 1) << i;
  }
  EXPECT_FALSE(driver.CallbackAfterClosing());
  std::string reply;
  EXPECT_TRUE(driver.Post("/echo", "still serving", reply).ok);
  EXPECT_EQ(reply, "still serving");
}

} // namespace
} // namespace QOR::inettest
