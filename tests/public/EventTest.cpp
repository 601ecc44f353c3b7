#include <qorxmlu/foundation/CountingSemaphore.h>
#include <qorxmlu/foundation/Event.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace QOR {
namespace {

using Clock = std::chrono::steady_clock;

SVArray<Event*, Event*> List(std::initializer_list<Event*> events) {
  SVArray<Event*, Event*> list;
  for (Event* event : events) list.Add(event);
  return list;
}

TEST(EventTest, SignalStaysUntilResetWaitsResetNothingAndTimeOut) {
  Event event(true);
  EXPECT_TRUE(event.Created());
  EXPECT_FALSE(event.IsSet());
  auto list = List({&event});
  EXPECT_EQ(WaitOnEvents(list, 0), -1);
  event.Set();
  event.Set();
  EXPECT_EQ(WaitOnEvents(list, 0), 0);
  EXPECT_EQ(WaitOnEvents(list, -1), 0);
  EXPECT_TRUE(event.IsSet());
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  auto start = Clock::now();
  EXPECT_EQ(WaitOnEvents(list, 40), -1);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(39));
}

TEST(EventTest, WaitReportsLowestSignalledIndexOrFailureAndKeepsTheListShared) {
  Event a, b, c;
  auto list = List({&a, &b, &c});
  c.Set();
  EXPECT_EQ(WaitOnEvents(list, 10), 2);
  b.Set();
  EXPECT_EQ(WaitOnEvents(list, 10), 1);
  a.Set();
  EXPECT_EQ(WaitOnEvents(list, 10), 0);

  SVArray<Event*, Event*> empty;
  EXPECT_EQ(WaitOnEvents(empty, 0), -2);
  EXPECT_EQ(WaitOnEvents(empty, -1), -2);
  auto withNull = List({&a, nullptr});
  EXPECT_EQ(WaitOnEvents(withNull, 0), -2);

  // A wait does not separate a shared list.
  SVArray<Event*, Event*> copy = list;
  EXPECT_EQ(WaitOnEvents(copy, 0), 0);
  EXPECT_EQ(list.ShareCount(), 2);
}

// A wait on many events, all but one clear, woken by a Set on another thread.
TEST(EventTest, SetOnAnotherThreadWakesEveryWaitThatListsIt) {
  std::vector<std::unique_ptr<Event>> events;
  SVArray<Event*, Event*> many, single;
  for (int i = 0; i < 9; ++i) {
    events.push_back(std::make_unique<Event>());
    many.Add(events.back().get());
  }
  single.Add(events[6].get());

  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&, i] {
      int result = WaitOnEvents(i % 2 ? many : single, 10000);
      EXPECT_EQ(result, i % 2 ? 6 : 0);
      ++woken;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(woken.load(), 0);
  events[6]->Set();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(woken.load(), 4);
}

// Waits that time out, or end by a signal, while Sets from other threads are on their way to
// waking them (more waits on one event than a Set wakes at once, too): a signalled wait must
// report it, and no wait may be lost or touched after it has returned.
TEST(EventTest, WaitsEndingWhileSetsRaceThemStayConsistent) {
  Event flag;
  Event never;
  auto list = List({&never, &flag});
  std::atomic<bool> done{false};
  std::atomic<int> signalled{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 12; ++i) {
    waiters.emplace_back([&] {
      while (!done.load()) {
        int result = WaitOnEvents(list, 1);
        EXPECT_TRUE(result == 1 || result == -1) << result;
        if (result == 1) ++signalled;
      }
    });
  }
  std::thread setter([&] {
    for (int i = 0; i < 3000; ++i) {
      flag.Set();
      flag.Reset();
      if (i % 64 == 0) std::this_thread::yield();
    }
    flag.Set();
  });
  setter.join();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  done = true;
  for (auto& waiter : waiters) waiter.join();
  EXPECT_GT(signalled.load(), 0);
}

TEST(CountingSemaphoreTest, SignalledWhileCountsAreLeft) {
  CountingSemaphore semaphore("test", 2);
  Event other;
  other.Set();
  auto list = List({&semaphore, &other});
  EXPECT_EQ(semaphore.Count(), 2);
  EXPECT_EQ(WaitOnEvents(list, 0), 0);
  semaphore.Reset();
  EXPECT_EQ(WaitOnEvents(list, 0), 0);
  semaphore.Reset();
  EXPECT_EQ(WaitOnEvents(list, 0), 1);
  semaphore.Reset(); // nothing to take at 0
  EXPECT_EQ(semaphore.Count(), 0);
  semaphore.Set();
  EXPECT_TRUE(semaphore.IsSet());
  semaphore.Set();
  semaphore.Set();
  EXPECT_EQ(semaphore.Count(), 3);
  semaphore.ResetAll();
  EXPECT_FALSE(semaphore.IsSet());
  EXPECT_EQ(CountingSemaphore(nullptr, -5).Count(), 0);
}

} // namespace
} // namespace QOR
