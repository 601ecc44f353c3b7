// The lock shared by every Event, CountingSemaphore and wait.
#pragma once

#include <mutex>

namespace QOR::detail {

struct WaitSlot;

// The waits that a Set has ended, woken after the events lock is let go: woken under it, a wait
// would only block on the lock next. It holds each slot until the wake-up is delivered, so a
// wait that ends meanwhile may leave. Declared before the lock guard, it delivers when it goes.
class Wakeups {
public:
  Wakeups() = default;
  Wakeups(const Wakeups&) = delete;
  Wakeups& operator=(const Wakeups&) = delete;
  ~Wakeups() { Deliver(); }

  // Under the events lock. False when full: the caller then wakes the wait itself, under the lock.
  bool Add(WaitSlot* slot) noexcept;
  // After the events lock.
  void Deliver() noexcept;

private:
  static constexpr int capacity = 8;
  WaitSlot* slots[capacity] = {};
  int size = 0;
};

// One process-wide lock guards the signal state of all events and their waiter lists. It is held
// for a few instructions at a time, and is released by a wait while it sleeps.
std::mutex& EventsLock() noexcept;

} // namespace QOR::detail
