#include "Scenarios.h"

#include <thread>

namespace QOR::inettest {

namespace {

using std::chrono::milliseconds;

// The engine's flags without IGNORE_CERT_CN_INVALID.
constexpr DWORD secureStrictFlags = 0x84C00000;

void Split(const std::string& hostPort, std::string& host, INTERNET_PORT& port) {
  auto colon = hostPort.rfind(':');
  host = hostPort.substr(0, colon);
  port = static_cast<INTERNET_PORT>(std::stoi(hostPort.substr(colon + 1)));
}

// Open and connect the way the engine does, to the server of `role`.
bool Start(InetDriver& driver, const ScenarioConfig& config, const std::string& role) {
  std::string host;
  INTERNET_PORT port = 0;
  auto found = config.servers.find(role);
  Split(found != config.servers.end() ? found->second : "127.0.0.1:1", host, port);
  return driver.Open() && driver.Connect(host, port);
}

void PostOnce(InetDriver& driver, const std::string& object, const std::string& body, DWORD flags = engineFlags) {
  std::string reply;
  driver.Post(object, body, reply, flags);
}

// A request whose send fails: the engine still ends it, then closes.
void FailedSend(InetDriver& driver, DWORD flags = engineFlags) {
  driver.OpenRequest("/path", flags);
  driver.AddContentType();
  driver.SendEx(300);
  driver.End();
  driver.CloseRequest();
}

void Normal(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "answer")) return;
  PostOnce(driver, "/path", std::string(300, 'b'));
  PostOnce(driver, "php/SafeTrace.php", std::string(300, 'b'));
}

void BigPost(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "sink")) return;
  PostOnce(driver, "/upload", std::string(5 * 1024 * 1024, 'u'));
}

void BigReply(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "big")) return;
  PostOnce(driver, "/download", std::string(300, 'b'));
}

void EmptyReply(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "empty")) return;
  PostOnce(driver, "/empty", std::string(300, 'b'));
}

void Trickle(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "trickle")) return;
  PostOnce(driver, "/trickle", std::string(300, 'b'));
}

void NotFound(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "missing")) return;
  PostOnce(driver, "/missing", std::string(300, 'b'));
}

void Refused(InetDriver& driver, const ScenarioConfig& config) {
  if (Start(driver, config, "refused")) FailedSend(driver);
}

void NoHost(InetDriver& driver, const ScenarioConfig&) {
  if (driver.Open() && driver.Connect("no-such-host.invalid", 80)) FailedSend(driver);
}

void Stale(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "stale")) return;
  PostOnce(driver, "/first", std::string(300, 'b'));
  std::this_thread::sleep_for(milliseconds(1000));
  PostOnce(driver, "/second", std::string(300, 'b'));
}

void Handles(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "handles")) return;
  driver.OpenRequest("/path");
  HINTERNET dead = driver.Request();
  driver.CloseHandleOnly(dead);
  driver.WaitClosing(dead, 0, milliseconds(2000));
  driver.CloseHandleOnly(dead);
  driver.AddContentType();
  driver.SendEx(300);
  char buffer[16];
  driver.Write(buffer, sizeof buffer);
  driver.End();
  driver.Read(buffer, sizeof buffer);
  driver.CloseHandleOnly(nullptr);
  PostOnce(driver, "/after", std::string(300, 'b'));
  HINTERNET connection = driver.Connection();
  driver.CloseConnection();
  driver.CloseHandleOnly(connection);
}

void MidClose(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "cut")) return;
  PostOnce(driver, "/cut", std::string(300, 'b'));
}

void NoReply(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "silent")) return;
  PostOnce(driver, "/silent", std::string(300, 'b'));
}

// The engine's cancel: a watchdog thread closes the request while a call is pending.
void CloseWhilePending(InetDriver& driver, InetDriver::Result (InetDriver::*step)(bool)) {
  HINTERNET request = driver.Request();
  (driver.*step)(false);
  std::thread closer([&] {
    std::this_thread::sleep_for(milliseconds(500));
    driver.CloseHandleOnly(request);
  });
  driver.Wait();
  closer.join();
  driver.WaitClosing(request, 0, milliseconds(10000));
}

void CloseInEnd(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "stall")) return;
  driver.OpenRequest("/stall");
  driver.AddContentType();
  driver.SendEx(300);
  driver.WriteAll(std::string(300, 'b'));
  CloseWhilePending(driver, &InetDriver::End);
}

void CloseInRead(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "stallbody")) return;
  driver.OpenRequest("/stallbody");
  driver.AddContentType();
  driver.SendEx(300);
  driver.WriteAll(std::string(300, 'b'));
  driver.End();
  static char buffer[blockSize];
  HINTERNET request = driver.Request();
  driver.Read(buffer, sizeof buffer, false);
  std::thread closer([&] {
    std::this_thread::sleep_for(milliseconds(500));
    driver.CloseHandleOnly(request);
  });
  driver.Wait();
  closer.join();
  driver.WaitClosing(request, 0, milliseconds(10000));
}

void TlsOnce(InetDriver& driver, const ScenarioConfig& config, const std::string& role, DWORD flags) {
  if (Start(driver, config, role)) PostOnce(driver, "/echo", std::string(300, 'b'), flags);
}

void TlsUntrusted(InetDriver& driver, const ScenarioConfig& config) {
  TlsOnce(driver, config, "tls-self", engineSecureFlags);
}
void TlsTrusted(InetDriver& driver, const ScenarioConfig& config) {
  TlsOnce(driver, config, "tls-good", engineSecureFlags);
}
void TlsWrongNameIgnored(InetDriver& driver, const ScenarioConfig& config) {
  TlsOnce(driver, config, "tls-wrongname-ignored", engineSecureFlags);
}
void TlsWrongName(InetDriver& driver, const ScenarioConfig& config) {
  TlsOnce(driver, config, "tls-wrongname", secureStrictFlags);
}
void TlsExpired(InetDriver& driver, const ScenarioConfig& config) {
  TlsOnce(driver, config, "tls-expired", engineSecureFlags);
}

} // namespace

const std::vector<ScenarioInfo>& AllScenarios() {
  static const std::vector<ScenarioInfo> scenarios = {
      {"normal", Normal},
      {"bigpost", BigPost},
      {"bigreply", BigReply},
      {"emptyreply", EmptyReply},
      {"trickle", Trickle},
      {"notfound", NotFound},
      {"refused", Refused},
      {"nohost", NoHost},
      {"stale", Stale},
      {"handles", Handles},
      {"midclose", MidClose},
      {"noreply", NoReply},
      {"close-in-end", CloseInEnd},
      {"close-in-read", CloseInRead},
      {"https-untrusted", TlsUntrusted},
      {"https-trusted", TlsTrusted},
      {"https-wrongname", TlsWrongName},
      {"https-wrongname-ignored", TlsWrongNameIgnored},
      {"https-expired", TlsExpired},
  };
  return scenarios;
}

std::vector<std::string> RunScenario(const std::string& name, const ScenarioConfig& config) {
  for (const ScenarioInfo& scenario : AllScenarios()) {
    if (name != scenario.name) continue;
    InetDriver driver;
    driver.SetWaits(std::chrono::milliseconds(20000), std::chrono::milliseconds(5000));
    scenario.run(driver, config);
    // Whatever is still open closes as the engine's Disconnect would.
    if (driver.Request()) driver.CloseRequest();
    if (driver.Connection()) driver.CloseConnection();
    if (driver.Root()) driver.CloseRoot();
    return driver.Trace();
  }
  return {};
}

} // namespace QOR::inettest
