// A program that only talks to the servers of TestServers.h: they run in qorxmlu_test_host.
#include "TestServers.h"

namespace QOR::test {

std::unique_ptr<ServerSet> StartServers(int) { return nullptr; }

bool RunningOnWine() { return false; }

} // namespace QOR::test
