// Events and the wait on several of them.
//
// An Event is manual-reset: Set signals it until Reset. WaitOnEvents blocks on any number of events
// without polling and reports the lowest index that is signalled. Set, Reset and waits may come from
// any thread; an Event must outlive every wait that lists it.
//
// Inline: Created, which is always true.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/SVArray.h>

#include <cstdint>

namespace QOR {

namespace detail {
struct EventWaiter;
struct EventAccess;
class Wakeups;
}

class QORXMLU_API Event {
public:
  // manualReset must be true: a signal stays until Reset, and waits reset nothing.
  explicit Event(bool manualReset = true);
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  virtual ~Event();

  // Signals the event and wakes every wait that lists it.
  virtual void Set();
  // Clears the signal.
  virtual void Reset();
  // True when the event could be made (always, here).
  bool Created() const noexcept { return true; }
  // True while the event is signalled (a CountingSemaphore: while counts are left).
  bool IsSet() const;

protected:
  friend struct detail::EventAccess;
  // Signal state under the events lock: 0 is clear; a CountingSemaphore keeps its count here.
  std::int64_t count = 0;
  // Under the events lock: marks the waits that this signal ends; `wakeups` wakes them once the
  // lock is let go.
  void WakeWaiters(detail::Wakeups& wakeups);

private:
  detail::EventWaiter* waiters = nullptr;
};

// Blocks until one of the events is signalled or the time runs out (-1: no limit). Returns the
// lowest index of a signalled event, -1 when the time ran out, -2 when the wait failed (an empty
// list, or a null event in it). Resets nothing. An event set while the wait sleeps counts even if
// it is reset again before the wait wakes.
QORXMLU_API int WaitOnEvents(SVArray<Event*, Event*>& events, int milliseconds);

} // namespace QOR
