// Volume and races, meant for the sanitizer builds: many requests in a row, roots on many
// threads, and closes that land at random points of a request.
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

TEST_F(InetStressTest, AThousandRequestsInARow) {
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  for (int i = 0; i < 1000; ++i) {
    std::string body = std::string(300, 'a' + i % 26);
    std::string reply;
    ASSERT_TRUE(driver.Post("/echo", body, reply).ok) << i;
    ASSERT_EQ(reply, body) << i;
  }
  EXPECT_EQ(server.Connections(), 1u);
  EXPECT_FALSE(driver.CallbackAfterClosing());
  // Every HttpEndRequest reports RECEIVING_RESPONSE, however early the reply came.
  std::vector<InetDriver::Note> notes = driver.Notes();
  auto receiving = std::count_if(notes.begin(), notes.end(), [](const InetDriver::Note& note) {
    return note.status == INTERNET_STATUS_RECEIVING_RESPONSE;
  });
  EXPECT_EQ(receiving, 1000);
}

TEST_F(InetStressTest, EightThreadsEachWithItsOwnRoot) {
  std::vector<std::thread> threads;
  std::atomic<int> succeeded{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      InetDriver driver("thread " + std::to_string(t));
      if (!driver.Open() || !driver.Connect(server.HostPort())) return;
      for (int i = 0; i < 60; ++i) {
        std::string body = "thread " + std::to_string(t) + " request " + std::to_string(i);
        std::string reply;
        if (driver.Post("/echo", body, reply).ok && reply == body) ++succeeded;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(succeeded.load(), 8 * 60);
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
    driver.AddContentType();
    auto step = driver.SendEx(static_cast<DWORD>(body.size()));
    if (step.ok) step = driver.WriteAll(body);
    auto ended = driver.End();
    EXPECT_FALSE(ended.pending && !ended.completed) << i;
    if (step.ok) step = ended;
    std::string reply;
    if (step.ok) step = driver.ReadAll(reply);
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
