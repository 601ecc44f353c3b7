// The lock shared by every Event, CountingSemaphore and wait.
#pragma once

#include <mutex>

namespace QOR::detail {

// One process-wide lock guards the signal state of all events and their waiter lists. It is held
// for a few instructions at a time, and is released by a wait while it sleeps.
std::mutex& EventsLock() noexcept;

} // namespace QOR::detail
