// A counting semaphore in the shape of an Event: Set adds a count, Reset takes one away, and it
// is signalled while counts are left. It stands in WaitOnEvents lists like any Event.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/Event.h>

namespace QOR {

class QORXMLU_API CountingSemaphore : public Event {
public:
  // name is for diagnostics and may be null; initialCount is the number of counts to start with.
  CountingSemaphore(const char* name, int initialCount);

  // Adds one count.
  void Set() override;
  // Takes one count away; nothing happens at 0.
  void Reset() override;
  // Counts left now.
  std::int64_t Count() const;
  // Drops every count.
  void ResetAll();
};

} // namespace QOR
