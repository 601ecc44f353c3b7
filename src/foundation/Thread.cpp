#include <qorxmlu/foundation/Thread.h>

#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/Utility.h>

#include "Spin.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <exception>
#include <thread>
#include <vector>

namespace QOR {

struct ThreadPoolAccess {
  static void RunBody(Thread& thread) noexcept { thread.RunBody(); }
  static void SignalEnded(Thread& thread) noexcept { thread.SignalEnded(); }
};

namespace {

using namespace std::chrono_literals;

// A worker that has just finished spins this long for its next job before it sleeps, and sleeps
// this long before it exits. A stopper spins this long for the end before it sleeps. A stop and
// a start in quick succession then costs no sleep and wake of an OS thread.
constexpr auto workerSpin = 50us;
constexpr auto idleLifetime = 20s;
constexpr auto stopSpin = 50us;
// A deferred job that found no OS thread is dispatched again after this.
constexpr auto retryAfter = 10ms;

using Clock = std::chrono::steady_clock;

struct Worker {
  std::atomic<Thread*> job{nullptr};
  std::mutex lock;
  std::condition_variable wake;
  bool sleeping = false; // under lock
  // Whether the worker spins for its next job: only while jobs have come that quickly, since
  // a spin that runs out only took a core from the threads doing the work. Worker's own.
  bool spinForJob = true;
};

// The OS threads that run Thread bodies. Idle workers wait for a job and exit after a while. One
// starter thread, made on first need, hands late-starting bodies to workers when they fall due.
class ThreadPool {
public:
  static ThreadPool& Instance() {
    // Leaked: idle workers may still wait on it while the process exits.
    static ThreadPool* pool = new ThreadPool;
    return *pool;
  }

  // Hands the job to an idle worker or to a new OS thread; false if no OS thread could be had.
  bool Dispatch(Thread* job) noexcept;
  // Has the starter dispatch the job at `due`; false if it could not be queued.
  bool Defer(Thread* job, Clock::time_point due) noexcept;
  // Takes back a deferred job that the starter has not dispatched yet.
  bool Withdraw(Thread* job) noexcept;

private:
  struct Deferred {
    Thread* job;
    Clock::time_point due;
  };

  void StarterMain() noexcept;
  static void WorkerMain(Worker* worker) noexcept;
  static Thread* TakeJob(Worker* worker) noexcept;
  Thread* AwaitJob(Worker* worker) noexcept;
  bool MakeIdle(Worker* worker) noexcept;
  bool Retire(Worker* worker) noexcept;

  std::mutex lock; // guards the fields below
  std::vector<Worker*> idle; // the latest freed last: it is the likeliest to be spinning still
  std::vector<Deferred> deferred;
  std::condition_variable starterWake;
  bool starterStarted = false;
  Clock::time_point starterWakesAt = Clock::time_point::min(); // the starter's next look, if asleep
};

bool ThreadPool::Dispatch(Thread* job) noexcept {
  Worker* worker = nullptr;
  {
    std::lock_guard<std::mutex> hold(lock);
    if (!idle.empty()) {
      worker = idle.back();
      idle.pop_back();
    }
  }
  if (worker) {
    // Stored under the worker's lock so that the worker cannot retire and vanish before we let go.
    std::lock_guard<std::mutex> hold(worker->lock);
    worker->job.store(job, std::memory_order_release);
    if (worker->sleeping) worker->wake.notify_one();
    return true;
  }
  try {
    worker = new Worker;
    worker->job.store(job, std::memory_order_relaxed);
    std::thread(WorkerMain, worker).detach();
    return true;
  } catch (...) {
    delete worker;
    return false;
  }
}

bool ThreadPool::Defer(Thread* job, Clock::time_point due) noexcept {
  std::lock_guard<std::mutex> hold(lock);
  try {
    if (!starterStarted) {
      std::thread([this] { StarterMain(); }).detach();
      starterStarted = true;
    }
    deferred.push_back({job, due});
  } catch (...) {
    return false;
  }
  // A starter that would wake by this due time anyway is left asleep.
  if (due < starterWakesAt) {
    starterWakesAt = due;
    starterWake.notify_one();
  }
  return true;
}

bool ThreadPool::Withdraw(Thread* job) noexcept {
  std::lock_guard<std::mutex> hold(lock);
  auto found = std::find_if(deferred.begin(), deferred.end(), [job](const Deferred& entry) { return entry.job == job; });
  if (found == deferred.end()) return false;
  deferred.erase(found);
  return true;
}

// Dispatches deferred jobs as they fall due. It wakes at most once per due time, and not at all
// while nothing is deferred.
void ThreadPool::StarterMain() noexcept {
  std::unique_lock<std::mutex> hold(lock);
  for (;;) {
    if (deferred.empty()) {
      starterWakesAt = Clock::time_point::max();
      // Whatever wakes it, the loop looks again and sets starterWakesAt anew: a job withdrawn
      // before the starter got to it must not leave a stale wake time that keeps Defer quiet.
      starterWake.wait(hold);
      continue;
    }
    auto first = std::min_element(deferred.begin(), deferred.end(),
                                  [](const Deferred& a, const Deferred& b) { return a.due < b.due; });
    Clock::time_point now = Clock::now();
    if (first->due > now) {
      // A copy: the list may grow, and move, while the wait has let go of the lock.
      Clock::time_point due = first->due;
      starterWakesAt = due;
      starterWake.wait_until(hold, due);
      continue;
    }
    Thread* job = first->job;
    deferred.erase(first);
    hold.unlock();
    bool dispatched = Dispatch(job);
    hold.lock();
    // No OS thread to be had: try again shortly; a stop meanwhile withdraws the job.
    if (!dispatched) deferred.push_back({job, now + retryAfter});
  }
}

void ThreadPool::WorkerMain(Worker* worker) noexcept {
  ThreadPool& pool = Instance();
  Thread* job = TakeJob(worker);
  while (job) {
    ThreadPoolAccess::RunBody(*job);
    // Idle before the end is signalled, so that a start right after the stop finds this worker.
    bool idleNow = pool.MakeIdle(worker);
    ThreadPoolAccess::SignalEnded(*job);
    job = idleNow ? pool.AwaitJob(worker) : nullptr;
  }
  delete worker;
}

Thread* ThreadPool::TakeJob(Worker* worker) noexcept {
  Thread* job = worker->job.load(std::memory_order_acquire);
  if (job) worker->job.store(nullptr, std::memory_order_relaxed);
  return job;
}

Thread* ThreadPool::AwaitJob(Worker* worker) noexcept {
  Thread* job = nullptr;
  auto idleSince = std::chrono::steady_clock::now();
  if (worker->spinForJob) {
    if (detail::SpinUntil([&] { return (job = TakeJob(worker)) != nullptr; }, workerSpin)) return job;
    worker->spinForJob = false;
  }
  std::unique_lock<std::mutex> hold(worker->lock);
  for (;;) {
    if ((job = TakeJob(worker))) break;
    worker->sleeping = true;
    bool timedOut = worker->wake.wait_for(hold, idleLifetime) == std::cv_status::timeout;
    worker->sleeping = false;
    if ((job = TakeJob(worker))) break;
    // A worker that a dispatcher has taken off the idle list stays: its job is on the way.
    if (timedOut && Retire(worker)) return nullptr;
  }
  worker->spinForJob = std::chrono::steady_clock::now() - idleSince < workerSpin;
  return job;
}

bool ThreadPool::MakeIdle(Worker* worker) noexcept {
  std::lock_guard<std::mutex> hold(lock);
  try {
    idle.push_back(worker);
    return true;
  } catch (...) {
    return false;
  }
}

bool ThreadPool::Retire(Worker* worker) noexcept {
  std::lock_guard<std::mutex> hold(lock);
  auto found = std::find(idle.begin(), idle.end(), worker);
  if (found == idle.end()) return false;
  idle.erase(found);
  return true;
}

String ThreadName(const Thread& thread) { return DecodeFromUTF8(thread.Name(), false); }

// The error for an exception that left a body; null if even that cannot be made.
ErrorInfo* DescribeException(const Thread& thread) noexcept {
  try {
    String text = String(u"Exception in thread ") + ThreadName(thread);
    try {
      throw;
    } catch (const std::exception& error) {
      text += u": ";
      text += DecodeFromUTF8(error.what(), false);
    } catch (...) {
    }
    return MakeError(text);
  } catch (...) {
    return nullptr;
  }
}

} // namespace

Thread::Thread(const char* name, Event* stopEvent, bool callerKeepsEvent)
    : name(name), stopEvent(stopEvent ? stopEvent : new Event(true)),
      ownsEvent(!callerKeepsEvent || !stopEvent) {}

Thread::~Thread() {
  if (running.load(std::memory_order_acquire)) {
    stopEvent->Set();
    // Not started yet, it never will be: the derived part that the body needs is gone.
    if (lateStart.count() > 0 && ThreadPool::Instance().Withdraw(this)) SignalEnded();
  }
  AwaitStoppedRunning();
  if (ownsEvent) delete stopEvent;
}

ErrorInfo* Thread::StartRunning() {
  bool wasRunning = false;
  if (!running.compare_exchange_strong(wasRunning, true, std::memory_order_acq_rel))
    return MakeError(String(u"Thread is running already: "), ThreadName(*this));
  stopEvent->Reset();
  ThreadPool& pool = ThreadPool::Instance();
  if (lateStart.count() > 0 && pool.Defer(this, Clock::now() + lateStart)) return nullptr;
  if (pool.Dispatch(this)) return nullptr;
  SignalEnded();
  return MakeError(String(u"Can't start thread: "), ThreadName(*this));
}

bool Thread::Running() const noexcept { return running.load(std::memory_order_acquire); }

void Thread::BlockingStopRunning() {
  if (running.load(std::memory_order_acquire)) {
    stopEvent->Set();
    OnStop();
    // Stopped before its start fell due: the body runs here, once, and finds the stop signalled.
    if (lateStart.count() > 0 && ThreadPool::Instance().Withdraw(this)) {
      RunBody();
      SignalEnded();
    }
  }
  AwaitStoppedRunning();
}

void Thread::AllowLateStart(std::chrono::microseconds grace) noexcept { lateStart = grace; }

void Thread::AwaitStoppedRunning() {
  detail::SpinUntil([this] { return !running.load(std::memory_order_acquire); }, stopSpin);
  // Taking the lock also waits out a worker that is still inside SignalEnded, so the object may
  // be destroyed as soon as this returns.
  std::unique_lock<std::mutex> hold(endMutex);
  if (!running.load(std::memory_order_acquire)) return;
  unsigned long long run = endedRuns;
  ended.wait(hold, [&] { return endedRuns != run; });
}

void Thread::RunBody() noexcept {
  bool finished = false;
  do {
    ErrorInfo* error = nullptr;
    try {
      error = ThreadBody(finished);
    } catch (...) {
      error = DescribeException(*this);
      finished = true;
    }
    if (error) LogAndResetError(error);
  } while (!finished && !stopEvent->IsSet());
}

void Thread::SignalEnded() noexcept {
  std::lock_guard<std::mutex> hold(endMutex);
  ++endedRuns;
  running.store(false, std::memory_order_release);
  ended.notify_all();
}

} // namespace QOR
