// A thread with a stop event.
//
// StartRunning hands ThreadBody to a pooled OS thread (an idle one if there is one), so starting
// costs microseconds. ThreadBody runs again and again while it leaves finished false and the stop
// event is not signalled; an error it returns goes to LogAndResetError. BlockingStopRunning signals
// the stop event, calls OnStop and waits until the body has returned; on a thread that never ran
// it returns at once. A stopped thread may be started again: StartRunning clears the stop event.
// A derived class stops its thread before its own part is destroyed; the base destructor only
// waits as a last resort.
//
// Inline: OnStop (empty), StopEvent and Name, which read fields only.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/Event.h>

#include <condition_variable>
#include <mutex>
#include <atomic>
#include <chrono>

namespace QOR {

class QORXMLU_API Thread {
public:
  // name is kept for diagnostics (not copied: a literal). stopEvent may be null, in which case the
  // thread makes its own. callerKeepsEvent false hands the event over: the thread deletes it.
  Thread(const char* name, Event* stopEvent, bool callerKeepsEvent);
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  // Signals the stop event of a body that still runs and waits for it (a derived class should have
  // stopped it already), then deletes the stop event if the thread owns it.
  virtual ~Thread();

  // Starts the body on a pooled thread. Fails with an error if the thread is running already or
  // no OS thread could be had.
  [[nodiscard]] virtual ErrorInfo* StartRunning();
  // Called by BlockingStopRunning after the stop event is signalled, before the wait.
  virtual void OnStop() {}

  // True from StartRunning until the body has returned for the last time.
  bool Running() const noexcept;
  // Signals the stop event and waits until the body has ended.
  void BlockingStopRunning();
  // Waits until the body has ended by itself, without signalling.
  void AwaitStoppedRunning();

  // The event that BlockingStopRunning signals; the body may wait on it.
  Event* StopEvent() const noexcept { return stopEvent; }
  // The name given at construction ("" for none).
  const char* Name() const noexcept { return name ? name : ""; }

protected:
  // Runs on the pooled thread. Set finished to true to end; return an error to have it logged.
  [[nodiscard]] virtual ErrorInfo* ThreadBody(bool& finished) = 0;
  // Lets the body begin up to `grace` after StartRunning (0, the default: at once). A thread
  // stopped within that time costs no OS thread at all: BlockingStopRunning runs the body once,
  // on its own thread, with the stop event signalled. Meant for bodies that first wait on their
  // stop event, such as watchdogs guarding something that usually ends quickly. Set it while the
  // thread is not running (a derived constructor is the place).
  void AllowLateStart(std::chrono::microseconds grace) noexcept;

private:
  friend struct ThreadPoolAccess;
  // On the pooled thread: the body loop, then (once the worker is free again) the end signal.
  void RunBody() noexcept;
  void SignalEnded() noexcept;

  const char* name;
  Event* stopEvent;
  bool ownsEvent;
  std::atomic<bool> running{false};
  std::mutex endMutex;
  std::condition_variable ended;
  unsigned long long endedRuns = 0; // under endMutex; tells a waiter its run ended after a restart
  std::chrono::microseconds lateStart{0};
};

} // namespace QOR
