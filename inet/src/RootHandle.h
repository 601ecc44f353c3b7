// The handle of InternetOpenW: owns the session, and with it the event-loop thread.
#pragma once

#include "Handle.h"

namespace QOR::inet {

class RootHandle : public Handle {
public:
  explicit RootHandle(std::shared_ptr<Session> session);
  ~RootHandle() override;

  // Closes every handle made from this one, then stops the loop thread before returning
  // (unless called from a status callback, which runs on that thread).
  bool Close() override;
  void AtExit() override;
};

} // namespace QOR::inet
