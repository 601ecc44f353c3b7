#include "RootHandle.h"

namespace QOR::inet {

RootHandle::RootHandle(std::shared_ptr<Session> session) : Handle(Kind::Root, std::move(session)) {}

RootHandle::~RootHandle() { GetSession().Stop(); }

bool RootHandle::Close() {
  if (!Handle::Close()) return false;
  GetSession().Stop();
  return true;
}

void RootHandle::AtExit() { GetSession().Stop(); }

} // namespace QOR::inet
