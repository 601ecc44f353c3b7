// The loopback servers the scenarios talk to, one per role, started together:
//   answer     200 with 120 bytes to every request, keep-alive (handles: the same)
//   sink       reads the whole body, then 200 "ok"
//   big        200 with 1 MiB at once          empty    200 with no body
//   trickle    200 with 1 MiB in 64 KiB pieces, 20 ms apart
//   missing    404 "no such page here\n"       refused  nothing listens
//   stale      answers, then drops the kept-alive connection after 0.1 s
//   cut        announces 10 000 bytes, sends 4 000, closes after 0.2 s
//   silent     reads the request and closes without a word
//   stall      reads the request and says nothing for `holdMs`, then closes
//   stallbody  sends headers for 100 000 bytes and 1 000 of them, then the same
//   tls-self, tls-good, tls-wrongname, tls-expired: HTTPS with a self-signed certificate, a
//              good one, one for another name, an expired one (the last three from the CA);
//              tls-wrongname-ignored like tls-wrongname (Wine caches names per process, so each
//              scenario has a server of its own)
#pragma once

#include "Scenarios.h"
#include "support/LoopbackServer.h"
#include "support/RawServer.h"
#include "support/TestPki.h"

#include <memory>
#include <vector>

namespace QOR::inettest {

class ScenarioServers {
public:
  explicit ScenarioServers(int holdMs = 3000);
  ~ScenarioServers();

  const ScenarioConfig& Config() const { return config; }
  const test::TestPki& Pki() const { return pki; }
  // The raw server of a role, for what it saw.
  const test::RawServer& Raw(const std::string& role) const;

private:
  void AddRaw(const std::string& role, test::RawServer::Script script);
  void AddTls(const std::string& role, const test::TestPki::Options& options);

  test::TestPki pki;
  ScenarioConfig config;
  std::vector<std::pair<std::string, std::unique_ptr<test::RawServer>>> raw;
  std::vector<std::unique_ptr<test::LoopbackServer>> tls;
};

} // namespace QOR::inettest
