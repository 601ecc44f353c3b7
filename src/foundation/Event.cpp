#include <qorxmlu/foundation/Event.h>

#include "EventLock.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <memory>
#include <thread>

namespace QOR {

namespace detail {

// What one WaitOnEvents call sleeps on. woken is the lowest list index whose Set reached the
// wait, INT_MAX until then.
struct WaitSlot {
  std::condition_variable wake;
  int woken = INT_MAX;
};

// The entry of one wait in one event's list of waiters (a wait on n events has n entries).
struct EventWaiter {
  WaitSlot* slot = nullptr;
  int index = 0;
  EventWaiter* prev = nullptr;
  EventWaiter* next = nullptr;
};

std::mutex& EventsLock() noexcept {
  // Leaked on purpose: events may be used by static objects and by threads still alive at exit.
  static std::mutex* lock = new std::mutex;
  return *lock;
}

} // namespace detail

Event::Event(bool) {}

Event::~Event() = default;

void Event::Set() {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  count = 1;
  WakeWaiters();
}

void Event::Reset() {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  count = 0;
}

bool Event::IsSet() const {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  return count > 0;
}

void Event::WakeWaiters() {
  // Notifying under the lock keeps the slot alive: a woken wait must take the lock to leave.
  for (detail::EventWaiter* waiter = waiters; waiter; waiter = waiter->next) {
    detail::WaitSlot* slot = waiter->slot;
    if (waiter->index < slot->woken) {
      if (slot->woken == INT_MAX) slot->wake.notify_one();
      slot->woken = waiter->index;
    }
  }
}

namespace {

constexpr int inlineEntries = 4;
constexpr std::chrono::microseconds waitSpin(50);

void Link(detail::EventWaiter*& head, detail::EventWaiter& waiter) {
  waiter.prev = nullptr;
  waiter.next = head;
  if (head) head->prev = &waiter;
  head = &waiter;
}

void Unlink(detail::EventWaiter*& head, detail::EventWaiter& waiter) {
  if (waiter.prev)
    waiter.prev->next = waiter.next;
  else
    head = waiter.next;
  if (waiter.next) waiter.next->prev = waiter.prev;
}

} // namespace

int WaitOnEvents(SVArray<Event*, Event*>& events, int milliseconds) {
  // Read through a const view: the non-const [] would separate a body shared with other handles.
  const SVArray<Event*, Event*>& list = events;
  std::size_t size = list.Size();
  if (size == 0 || size > static_cast<std::size_t>(INT_MAX)) return -2;
  Event* const* entries = &list[0];
  int count = static_cast<int>(size);
  for (int i = 0; i < count; ++i)
    if (!entries[i]) return -2;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  auto firstSignalled = [entries, count] {
    for (int i = 0; i < count; ++i)
      if (entries[i]->count > 0) return i;
    return -1;
  };
  detail::EventWaiter inlineWaiters[inlineEntries];
  std::unique_ptr<detail::EventWaiter[]> heapWaiters;
  detail::EventWaiter* waiters = inlineWaiters;
  if (count > inlineEntries) {
    heapWaiters.reset(new detail::EventWaiter[size]);
    waiters = heapWaiters.get();
  }
  detail::WaitSlot slot;

  std::unique_lock<std::mutex> lock(detail::EventsLock());
  int signalled = firstSignalled();
  if (signalled >= 0 || milliseconds == 0) return signalled;
  for (int i = 0; i < count; ++i) {
    waiters[i].slot = &slot;
    waiters[i].index = i;
    Link(entries[i]->waiters, waiters[i]);
  }

  // A Set usually comes within microseconds (a completion on another thread): watch for it a
  // moment before sleeping, whose wake-up costs as much again. Linked already, the wait misses
  // no Set meanwhile.
  auto spinUntil = std::chrono::steady_clock::now() + waitSpin;
  if (milliseconds > 0) spinUntil = std::min(spinUntil, deadline);
  while (slot.woken == INT_MAX && std::chrono::steady_clock::now() < spinUntil) {
    lock.unlock();
    std::this_thread::yield();
    lock.lock();
  }
  bool timedOut = false;
  while (slot.woken == INT_MAX && !timedOut) {
    if (milliseconds < 0)
      slot.wake.wait(lock);
    else
      timedOut = slot.wake.wait_until(lock, deadline) == std::cv_status::timeout;
  }
  for (int i = 0; i < count; ++i) Unlink(entries[i]->waiters, waiters[i]);

  // An event that was set during the wait counts even if it has been reset since.
  signalled = firstSignalled();
  if (signalled < 0 && slot.woken != INT_MAX) signalled = slot.woken;
  return signalled;
}

} // namespace QOR
