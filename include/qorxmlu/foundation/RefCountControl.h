// The process-wide lock under which shared reference counts change.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>

namespace QOR {

class QORXMLU_API RefCountControl {
public:
  // Take and give up the lock. Recursive; stands alone in the lock order (no other lock is taken
  // inside it by the library).
  static void EnterCritSection() noexcept;
  static void LeaveCritSection() noexcept;
};

} // namespace QOR
