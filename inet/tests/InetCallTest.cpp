// Call sequences of successful requests: what the engine calls, what comes back, and what the
// server gets on the wire.
#include "InetDriver.h"
#include "support/LoopbackServer.h"
#include "support/RawServer.h"

#include <gtest/gtest.h>

namespace QOR::inettest {
namespace {

using test::LoopbackServer;
using test::RawConnection;
using test::RawServer;

TEST(InetCallTest, NormalRequestTraceMatchesWinInet) {
  RawServer server(RawServer::Answer(std::string(120, 'r')));
  InetDriver driver;
  ASSERT_TRUE(driver.Open());
  ASSERT_TRUE(driver.Connect(server.HostPort()));
  std::string reply;
  ASSERT_TRUE(driver.Post("/path", std::string(300, 'b'), reply).ok);
  EXPECT_EQ(reply, std::string(120, 'r'));
  for (const auto& line : driver.Trace()) std::printf("%s\n", line.c_str());
}

} // namespace
} // namespace QOR::inettest
