// A test fixture for tests that talk to the fake web service: WinInet loaded for the suite, and
// clients of the service.
#pragma once

#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "SoapService.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace QOR::test {

class ServiceTest : public testing::Test {
protected:
  static void SetUpTestSuite() { loadError = TakeText(HttpClient::InitialiseHttp()); }
  static void TearDownTestSuite() { delete HttpClient::TerminateHttp(); }
  void SetUp() override { ASSERT_EQ(loadError, ""); }

  // A client of the server at address with the url prefix "/", so that a query's url is the
  // service's path without its slash.
  static std::unique_ptr<HttpClient> ClientOf(const std::string& address, DWORD requestTimeoutSeconds = 10) {
    auto client = std::make_unique<HttpClient>(u"qorxmlu tests", String::FromUtf8(address), false, 5,
                                               requestTimeoutSeconds);
    client->AddUrlPrefix(u"/");
    return client;
  }
  static std::unique_ptr<HttpClient> ServiceClient(DWORD requestTimeoutSeconds = 10) {
    return ClientOf(TheSoapService().service, requestTimeoutSeconds);
  }

  static inline std::string loadError;
};

} // namespace QOR::test
