// TLS beyond the certificate verdicts of the scenarios: where trust comes from, and keep-alive.
#include "InetDriver.h"
#include "support/LoopbackServer.h"
#include "support/TestPki.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace QOR::inettest {
namespace {

using test::LoopbackServer;
using test::TestPki;

class InetTlsTest : public testing::Test {
protected:
  void SetUp() override {
    files = pki.Issue("server", TestPki::Options{});
    server = std::make_unique<LoopbackServer>(files.certificate, files.key);
    server->Start();
  }
  void TearDown() override { unsetenv("SSL_CERT_FILE"); }

  TestPki pki;
  TestPki::ServerFiles files;
  std::unique_ptr<LoopbackServer> server;
};

TEST_F(InetTlsTest, TrustComesFromTheSystemStoreOrSslCertFile) {
  unsetenv("SSL_CERT_FILE");
  InetDriver stranger;
  ASSERT_TRUE(stranger.Open() && stranger.Connect(server->HostPort()));
  std::string reply;
  auto refused = stranger.Post("/echo", "hello", reply, engineSecureFlags);
  EXPECT_EQ(refused.error, static_cast<DWORD>(ERROR_INTERNET_INVALID_CA));

  setenv("SSL_CERT_FILE", pki.CaFile().c_str(), 1);
  InetDriver trusting;
  ASSERT_TRUE(trusting.Open() && trusting.Connect(server->HostPort()));
  EXPECT_TRUE(trusting.Post("/echo", "hello", reply, engineSecureFlags).ok);
  EXPECT_EQ(reply, "hello");
}

TEST_F(InetTlsTest, SecureRequestsShareOneConnection) {
  setenv("SSL_CERT_FILE", pki.CaFile().c_str(), 1);
  InetDriver driver;
  ASSERT_TRUE(driver.Open() && driver.Connect(server->HostPort()));
  for (int i = 0; i < 3; ++i) {
    std::string reply;
    ASSERT_TRUE(driver.Post("/echo", std::string(70000, 'a' + i), reply, engineSecureFlags).ok);
    EXPECT_EQ(reply, std::string(70000, 'a' + i));
  }
  EXPECT_EQ(server->Connections(), 1u);
}

} // namespace
} // namespace QOR::inettest
