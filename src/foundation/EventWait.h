// The wait of WaitOnEvents for callers that expect the signal within microseconds.
#pragma once

#include <qorxmlu/foundation/Event.h>

#include <chrono>

namespace QOR::detail {

// WaitOnEvents that first watches the events for up to `watch`, yielding the core between looks,
// before it sleeps. Worth it where the Set usually comes from another thread within a few
// microseconds (a completion): a sleep and wake-up costs as much again. A wait with a long
// time-out and no such expectation should sleep at once: its watching only takes a core from
// the threads that do the work.
int WaitOnEventsWatching(SVArray<Event*, Event*>& events, int milliseconds, std::chrono::microseconds watch);

} // namespace QOR::detail
