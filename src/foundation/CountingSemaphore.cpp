#include <qorxmlu/foundation/CountingSemaphore.h>

#include "EventLock.h"

namespace QOR {

CountingSemaphore::CountingSemaphore(const char*, int initialCount) : Event(true) {
  count = initialCount > 0 ? initialCount : 0;
}

void CountingSemaphore::Set() {
  detail::Wakeups wakeups;
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  ++count;
  WakeWaiters(wakeups);
}

void CountingSemaphore::Reset() {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  if (count > 0) --count;
}

std::int64_t CountingSemaphore::Count() const {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  return count;
}

void CountingSemaphore::ResetAll() {
  std::lock_guard<std::mutex> lock(detail::EventsLock());
  count = 0;
}

} // namespace QOR
