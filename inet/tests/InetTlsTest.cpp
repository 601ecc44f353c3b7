// TLS beyond the certificate verdicts of the scenarios: keep-alive.
#include "InetDriver.h"
#include "support/LoopbackServer.h"
#include "support/TestPki.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace QOR::inettest {
namespace {

TEST(InetTlsTest, SecureRequestsShareOneConnection) {
  test::TestPki pki;
  test::TestPki::ServerFiles files = pki.Issue("server", test::TestPki::Options{});
  test::LoopbackServer server(files.certificate, files.key);
  server.Start();
  setenv("SSL_CERT_FILE", pki.CaFile().c_str(), 1);
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server.HostPort()));
  for (int i = 0; i < 3; ++i) {
    std::string reply;
    ASSERT_TRUE(driver.Post("/echo", std::string(70000, 'a' + i), reply, engineSecureFlags).ok);
    EXPECT_EQ(reply, std::string(70000, 'a' + i));
  }
  EXPECT_EQ(server.Connections(), 1u);
  unsetenv("SSL_CERT_FILE");
}

} // namespace
} // namespace QOR::inettest
