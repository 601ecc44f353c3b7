#include "Scenarios.h"

#include <thread>

namespace QOR::inettest {

namespace {

using std::chrono::milliseconds;

// The engine's flags without IGNORE_CERT_CN_INVALID.
constexpr DWORD secureStrictFlags = 0x84C00000;

// Open and connect the way the engine does, to the server of `role`.
bool Start(InetDriver& driver, const ScenarioConfig& config, const std::string& role) {
  auto found = config.address.find(role);
  std::string hostPort = found != config.address.end() ? found->second : "127.0.0.1:1";
  auto colon = hostPort.rfind(':');
  auto port = static_cast<INTERNET_PORT>(colon == std::string::npos ? 80 : std::stoi(hostPort.substr(colon + 1)));
  return driver.Open() && driver.Connect(hostPort.substr(0, colon), port);
}

void PostOnce(InetDriver& driver, const std::string& object, std::size_t size = 300, DWORD flags = engineFlags) {
  std::string reply;
  driver.Post(object, std::string(size, 'b'), reply, flags);
}

void Normal(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "answer")) return;
  PostOnce(driver, "/path");
  PostOnce(driver, "php/SafeTrace.php");
}

void Stale(InetDriver& driver, const ScenarioConfig& config) {
  if (!Start(driver, config, "stale")) return;
  PostOnce(driver, "/first");
  std::this_thread::sleep_for(milliseconds(1000));
  PostOnce(driver, "/second");
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
  PostOnce(driver, "/after");
  HINTERNET connection = driver.Connection();
  driver.CloseConnection();
  driver.CloseHandleOnly(connection);
}

} // namespace

const std::vector<ScenarioInfo>& AllScenarios() {
  static const std::vector<ScenarioInfo> scenarios = {
      {"normal", Normal},
      {"bigpost", nullptr, "sink", "/upload", 5 * 1024 * 1024},
      {"bigreply", nullptr, "big", "/download"},
      {"emptyreply", nullptr, "empty", "/empty"},
      {"trickle", nullptr, "trickle", "/trickle"},
      {"notfound", nullptr, "missing", "/missing"},
      // A send that fails: the engine still ends the request, then closes it.
      {"refused", nullptr, "refused", "/path"},
      {"nohost", nullptr, "unresolved", "/path"},
      {"stale", Stale},
      {"handles", Handles},
      {"midclose", nullptr, "cut", "/cut"},
      {"noreply", nullptr, "silent", "/silent"},
      {"https-untrusted", nullptr, "untrusted", "/echo", 300, engineSecureFlags},
      {"https-trusted", nullptr, "secure", "/echo", 300, engineSecureFlags},
      {"https-wrongname", nullptr, "wronghost", "/echo", 300, secureStrictFlags},
      {"https-wrongname-ignored", nullptr, "wronghost2", "/echo", 300, engineSecureFlags},
      {"https-expired", nullptr, "expired", "/echo", 300, engineSecureFlags},
  };
  return scenarios;
}

std::vector<std::string> RunScenario(const std::string& name, const ScenarioConfig& config) {
  for (const ScenarioInfo& scenario : AllScenarios()) {
    if (name != scenario.name) continue;
    InetDriver driver;
    if (scenario.run)
      scenario.run(driver, config);
    else if (Start(driver, config, scenario.role))
      PostOnce(driver, scenario.object, scenario.size, scenario.flags);
    // Whatever is still open closes as the engine's Disconnect would (the driver's destructor).
    driver.CloseAll();
    return driver.Trace();
  }
  return {};
}

} // namespace QOR::inettest
