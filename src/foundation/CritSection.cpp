#include <qorxmlu/foundation/CritSection.h>
#include <qorxmlu/foundation/RefCountControl.h>

#include <mutex>

namespace QOR {

namespace {
// Made on first use and never destroyed, so arrays held in statics may change during start-up and
// shut-down of the process too.
std::recursive_mutex& ArrayLock() {
  static auto* lock = new std::recursive_mutex;
  return *lock;
}

std::recursive_mutex& RefCountLock() {
  static auto* lock = new std::recursive_mutex;
  return *lock;
}
} // namespace

void BlockOnCritSection() noexcept { ArrayLock().lock(); }
void UnblockOnCritSection() noexcept { ArrayLock().unlock(); }

void RefCountControl::EnterCritSection() noexcept { RefCountLock().lock(); }
void RefCountControl::LeaveCritSection() noexcept { RefCountLock().unlock(); }

} // namespace QOR
