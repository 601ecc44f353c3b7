#include <qorxmlu/foundation/Thread.h>
#include <qorxmlu/foundation/Utility.h>

#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace QOR {
namespace {

using namespace std::chrono_literals;

// Runs a body given as a function; counts its passes and OnStop calls.
class TestThread : public Thread {
public:
  using Body = std::function<ErrorInfo*(TestThread&, bool&)>;
  explicit TestThread(Body body, Event* stopEvent = nullptr, bool callerKeepsEvent = true)
      : Thread("TestThread", stopEvent, callerKeepsEvent), body(std::move(body)) {}
  ~TestThread() override { BlockingStopRunning(); }
  void LateStart(std::chrono::microseconds grace) { AllowLateStart(grace); }

  void OnStop() override {
    stopSeenInOnStop = StopEvent()->IsSet();
    ++stops;
  }

  std::atomic<int> passes{0};
  std::atomic<int> stops{0};
  std::atomic<bool> stopSeenInOnStop{false};

protected:
  ErrorInfo* ThreadBody(bool& finished) override {
    ++passes;
    return body(*this, finished);
  }

private:
  Body body;
};

// Waits for the stop event, then ends.
ErrorInfo* UntilStopped(TestThread& thread, bool& finished) {
  SVArray<Event*, Event*> list;
  list.Add(thread.StopEvent());
  WaitOnEvents(list, -1);
  finished = true;
  return nullptr;
}

TEST(ThreadTest, BodyRunsAgainUntilFinishedOrStopped) {
  TestThread counting([](TestThread& self, bool& finished) -> ErrorInfo* {
    finished = self.passes == 5;
    return nullptr;
  });
  ASSERT_EQ(counting.StartRunning(), nullptr);
  counting.AwaitStoppedRunning();
  EXPECT_FALSE(counting.Running());
  EXPECT_EQ(counting.passes.load(), 5);

  // A body that never finishes by itself ends once the stop event is set.
  TestThread looping([](TestThread&, bool&) -> ErrorInfo* {
    std::this_thread::sleep_for(1ms);
    return nullptr;
  });
  ASSERT_EQ(looping.StartRunning(), nullptr);
  EXPECT_TRUE(looping.Running());
  while (looping.passes < 3) std::this_thread::sleep_for(1ms);
  looping.BlockingStopRunning();
  EXPECT_FALSE(looping.Running());
  EXPECT_EQ(looping.stops.load(), 1);
  EXPECT_TRUE(looping.stopSeenInOnStop.load());
  int passes = looping.passes;
  std::this_thread::sleep_for(5ms);
  EXPECT_EQ(looping.passes.load(), passes);
}

TEST(ThreadTest, StopsAtOnceBeforeAnyRunRestartsAfterAStopAndRefusesASecondStart) {
  TestThread thread(UntilStopped);
  auto start = std::chrono::steady_clock::now();
  thread.BlockingStopRunning();
  thread.AwaitStoppedRunning();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(thread.stops.load(), 0);
  for (int run = 1; run <= 3; ++run) {
    ASSERT_EQ(thread.StartRunning(), nullptr);
    ErrorInfo* again = thread.StartRunning();
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(again->Text().Contains(u"TestThread"));
    delete again;
    thread.BlockingStopRunning();
    EXPECT_EQ(thread.passes.load(), run); // the stop event was cleared by each start
  }
}

std::mutex logLock;
std::vector<String> logged;

TEST(ThreadTest, ErrorsAndExceptionsOfTheBodyAreLogged) {
  logged.clear();
  SetErrorSink([](const ErrorInfo& error) {
    std::lock_guard<std::mutex> hold(logLock);
    logged.push_back(error.FullText());
  });
  TestThread failing([](TestThread& self, bool& finished) -> ErrorInfo* {
    finished = self.passes == 2;
    return MakeError(String(u"pass "), self.passes.load());
  });
  ASSERT_EQ(failing.StartRunning(), nullptr);
  failing.AwaitStoppedRunning();

  TestThread throwing([](TestThread&, bool&) -> ErrorInfo* { throw std::runtime_error("broken"); });
  ASSERT_EQ(throwing.StartRunning(), nullptr);
  throwing.AwaitStoppedRunning();
  EXPECT_EQ(throwing.passes.load(), 1);
  SetErrorSink(nullptr);

  std::lock_guard<std::mutex> hold(logLock);
  ASSERT_EQ(logged.size(), 3u);
  EXPECT_EQ(logged[0], String(u"pass 1"));
  EXPECT_EQ(logged[1], String(u"pass 2"));
  EXPECT_TRUE(logged[2].Contains(u"TestThread"));
  EXPECT_TRUE(logged[2].Contains(u"broken"));
}

class TrackedEvent : public Event {
public:
  explicit TrackedEvent(bool& destroyed) : destroyed(destroyed) {}
  ~TrackedEvent() override { destroyed = true; }

private:
  bool& destroyed;
};

std::atomic<int> bareRuns{0};

// Stops nothing in its destructor: the base destructor is what ends it.
class BareThread : public Thread {
public:
  BareThread() : Thread("BareThread", nullptr, false) { AllowLateStart(std::chrono::milliseconds(50)); }

protected:
  ErrorInfo* ThreadBody(bool& finished) override {
    ++bareRuns;
    finished = true;
    return nullptr;
  }
};

// Destroyed while it runs, or before its late start is due: the thread stops (and a late one never
// runs), and only a stop event handed over goes with it.
TEST(ThreadTest, ADestroyedThreadStopsAndDeletesOnlyAStopEventHandedOver) {
  bool handedOverDestroyed = false, keptDestroyed = false;
  TrackedEvent kept(keptDestroyed);
  bareRuns = 0;
  {
    TestThread handedOver(UntilStopped, new TrackedEvent(handedOverDestroyed), false);
    TestThread keeping(UntilStopped, &kept, true);
    BareThread late;
    ASSERT_EQ(handedOver.StartRunning(), nullptr);
    ASSERT_EQ(keeping.StartRunning(), nullptr);
    ASSERT_EQ(late.StartRunning(), nullptr);
  }
  EXPECT_TRUE(handedOverDestroyed);
  EXPECT_FALSE(keptDestroyed);
  EXPECT_TRUE(kept.IsSet());
  std::this_thread::sleep_for(150ms); // past the grace: nothing may be dispatched any more
  EXPECT_EQ(bareRuns.load(), 0);
}

// Bodies that only end together need an OS thread each: the pool must never queue a job
// behind a busy worker.
TEST(ThreadTest, ManyThreadsRunAtOnce) {
  constexpr int count = 12;
  std::atomic<int> arrived{0};
  std::vector<std::unique_ptr<TestThread>> threads;
  for (int i = 0; i < count; ++i) {
    threads.push_back(std::make_unique<TestThread>([&](TestThread&, bool& finished) -> ErrorInfo* {
      ++arrived;
      auto give = std::chrono::steady_clock::now() + 10s;
      while (arrived < count && std::chrono::steady_clock::now() < give) std::this_thread::sleep_for(1ms);
      finished = true;
      return nullptr;
    }));
    ASSERT_EQ(threads.back()->StartRunning(), nullptr);
  }
  for (auto& thread : threads) thread->AwaitStoppedRunning();
  EXPECT_EQ(arrived.load(), count);
}

TEST(ThreadTest, LateStartRunsTheBodyOnTheStopperOrAfterTheGraceAlsoAfterAWithdrawnStart) {
  std::thread::id ranOn;
  bool stopWasSet = false;
  auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration startedAfter{};
  TestThread thread([&](TestThread& self, bool& finished) -> ErrorInfo* {
    ranOn = std::this_thread::get_id();
    stopWasSet = self.StopEvent()->IsSet();
    startedAfter = std::chrono::steady_clock::now() - start;
    finished = true;
    return nullptr;
  });

  // Stopped within the grace: one pass, here, with the stop signalled.
  thread.LateStart(10s);
  ASSERT_EQ(thread.StartRunning(), nullptr);
  EXPECT_TRUE(thread.Running());
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(thread.passes.load(), 0);
  thread.BlockingStopRunning();
  EXPECT_FALSE(thread.Running());
  EXPECT_EQ(thread.passes.load(), 1);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(stopWasSet);

  // Left alone: it starts by itself once the grace is over, on a pooled thread.
  thread.LateStart(30ms);
  start = std::chrono::steady_clock::now();
  ASSERT_EQ(thread.StartRunning(), nullptr);
  thread.AwaitStoppedRunning();
  EXPECT_EQ(thread.passes.load(), 2);
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(stopWasSet);
  EXPECT_GE(startedAfter, 30ms);
  EXPECT_LT(startedAfter, 5s);

  // A start withdrawn before the starter looked leaves the next one on time.
  thread.LateStart(20ms);
  for (int round = 0; round < 20; ++round) {
    // Withdrawn at once: the starter, woken for it, may find nothing left.
    ASSERT_EQ(thread.StartRunning(), nullptr);
    thread.BlockingStopRunning();
    std::this_thread::sleep_for(25ms);
    // This one runs by itself once its grace is over.
    auto deadline = std::chrono::steady_clock::now() + 2s;
    ASSERT_EQ(thread.StartRunning(), nullptr);
    while (thread.Running() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
    ASSERT_FALSE(thread.Running()) << "round " << round << ": the late start never came";
  }
  EXPECT_EQ(thread.passes.load(), 42);
}

// Quick starts and stops from several threads: of a body that finishes, of one that waits for
// its stop, and of a late-starting one whose stops come before its start falls due, after it,
// and just at it.
TEST(ThreadTest, StartsAndStopsFromSeveralThreadsAtAnyPoint) {
  std::vector<std::thread> drivers;
  std::atomic<int> failures{0};
  for (int d = 0; d < 3; ++d) {
    drivers.emplace_back([&, d] {
      TestThread finishing([](TestThread&, bool& finished) -> ErrorInfo* {
        finished = true;
        return nullptr;
      });
      TestThread waiting(UntilStopped), watchdog(UntilStopped);
      watchdog.LateStart(std::chrono::microseconds(500));
      for (int i = 0; i < 200; ++i) {
        for (TestThread* thread : {&finishing, &waiting, &watchdog}) {
          if (ErrorInfo* error = thread->StartRunning()) {
            ++failures;
            delete error;
          }
        }
        if ((i + d) % 3 == 1) std::this_thread::sleep_for(std::chrono::microseconds(400 + 100 * d));
        if ((i + d) % 3 == 2) std::this_thread::sleep_for(2ms);
        for (TestThread* thread : {&watchdog, &waiting, &finishing}) thread->BlockingStopRunning();
      }
      if (finishing.passes != 200 || waiting.passes != 200 || watchdog.passes != 200) ++failures;
    });
  }
  for (auto& driver : drivers) driver.join();
  EXPECT_EQ(failures.load(), 0);
}

} // namespace
} // namespace QOR
