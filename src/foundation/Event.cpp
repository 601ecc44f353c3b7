#include <qorxmlu/foundation/Event.h>

#include "EventLock.h"
#include "EventWait.h"
#include "Spin.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <memory>
#include <thread>

namespace QOR {

namespace detail {

// What one WaitOnEvents call sleeps on. woken is the lowest list index whose Set reached the
// wait, INT_MAX until then; it is written under the events lock and read anywhere. The wait
// sleeps under the slot's own lock, not the events lock, and is woken after a Set has let the
// events lock go: woken under it, the wait would only block on it next.
struct WaitSlot {
  std::mutex lock;
  std::condition_variable wake;
  std::atomic<int> woken{INT_MAX};
  // The wait and each wake-up on its way hold the slot; the last to let go frees it, so that a
  // woken wait need not wait for the Set that woke it to finish.
  std::atomic<int> holders{1};

  static void Release(WaitSlot* slot) noexcept {
    if (slot->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete slot;
  }
};

bool Wakeups::Add(WaitSlot* slot) noexcept {
  if (size == capacity) return false;
  slot->holders.fetch_add(1, std::memory_order_relaxed);
  slots[size++] = slot;
  return true;
}

void Wakeups::Deliver() noexcept {
  for (int i = 0; i < size; ++i) {
    WaitSlot* slot = slots[i];
    // Passing through the slot's lock orders this wake-up after the wait's last look at woken.
    { std::lock_guard<std::mutex> own(slot->lock); }
    slot->wake.notify_one();
    WaitSlot::Release(slot);
  }
  size = 0;
}

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
  detail::Wakeups wakeups;
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  count = 1;
  WakeWaiters(wakeups);
}

void Event::Reset() {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  count = 0;
}

bool Event::IsSet() const {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  return count > 0;
}

void Event::WakeWaiters(detail::Wakeups& wakeups) {
  for (detail::EventWaiter* waiter = waiters; waiter; waiter = waiter->next) {
    detail::WaitSlot* slot = waiter->slot;
    int woken = slot->woken.load(std::memory_order_relaxed);
    if (waiter->index >= woken) continue;
    slot->woken.store(waiter->index, std::memory_order_release);
    if (woken != INT_MAX || wakeups.Add(slot)) continue;
    // Woken under the events lock, which keeps the slot alive: the wait takes it to leave.
    { std::lock_guard<std::mutex> own(slot->lock); }
    slot->wake.notify_one();
  }
}

namespace {

constexpr int inlineEntries = 4;

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

// The wait itself, with the access to the events' signal state and waiter lists.
struct detail::EventAccess {
  static int Wait(SVArray<Event*, Event*>& events, int milliseconds, std::chrono::microseconds watch);
};

int WaitOnEvents(SVArray<Event*, Event*>& events, int milliseconds) {
  return detail::EventAccess::Wait(events, milliseconds, std::chrono::microseconds(0));
}

int detail::WaitOnEventsWatching(SVArray<Event*, Event*>& events, int milliseconds, std::chrono::microseconds watch) {
  return EventAccess::Wait(events, milliseconds, watch);
}

int detail::EventAccess::Wait(SVArray<Event*, Event*>& events, int milliseconds, std::chrono::microseconds watch) {
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
  std::unique_lock<std::mutex> lock(detail::EventsLock());
  int signalled = firstSignalled();
  if (signalled >= 0 || milliseconds == 0) return signalled;
  auto* held = new detail::WaitSlot;
  detail::WaitSlot& slot = *held;
  for (int i = 0; i < count; ++i) {
    waiters[i].slot = held;
    waiters[i].index = i;
    Link(entries[i]->waiters, waiters[i]);
  }

  lock.unlock();
  auto woken = [&slot] { return slot.woken.load(std::memory_order_acquire) != INT_MAX; };
  // Linked already, the wait misses no Set while it watches.
  if (watch.count() > 0) {
    auto limit = watch;
    if (milliseconds > 0) limit = std::min<std::chrono::microseconds>(limit, std::chrono::milliseconds(milliseconds));
    detail::SpinUntil(woken, limit);
  }
  {
    std::unique_lock<std::mutex> own(slot.lock);
    bool timedOut = false;
    while (!woken() && !timedOut) {
      if (milliseconds < 0)
        slot.wake.wait(own);
      else
        timedOut = slot.wake.wait_until(own, deadline) == std::cv_status::timeout;
    }
  }
  lock.lock();
  for (int i = 0; i < count; ++i) Unlink(entries[i]->waiters, waiters[i]);

  // An event that was set during the wait counts even if it has been reset since.
  signalled = firstSignalled();
  int index = slot.woken.load(std::memory_order_relaxed);
  if (signalled < 0 && index != INT_MAX) signalled = index;
  lock.unlock();
  detail::WaitSlot::Release(held);
  return signalled;
}

} // namespace QOR
