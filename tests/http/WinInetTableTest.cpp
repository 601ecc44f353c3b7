#include "http/WinInetTable.h"

#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace QOR {
namespace {

// A module loader whose module lacks one entry point, or cannot be loaded at all, and what it
// was asked.
struct StandInModule {
  bool loadable = true;
  std::string missing;
  std::vector<std::string> loads;
  std::vector<std::string> lookups;
  int releases = 0;
} standIn;
char module;
char entry;

const ModuleLoader standInLoader{
    [](const String& name) -> platform::ModuleHandle {
      standIn.loads.push_back(name.ToUtf8());
      return standIn.loadable ? &module : nullptr;
    },
    [](platform::ModuleHandle, const char* name) -> void* {
      standIn.lookups.push_back(name);
      return name == standIn.missing || std::string(name) == "GetLastError" ? nullptr : &entry;
    },
    [](platform::ModuleHandle) {
      ++standIn.releases;
      return true;
    }};

class WinInetTableTest : public testing::Test {
protected:
  void SetUp() override {
    saved = winInet;
    winInet = WinInetTable{};
    standIn = {};
  }
  void TearDown() override { winInet = saved; }

  WinInetTable saved;
};

const char* const entryNames[] = {"InternetOpenW",       "InternetCloseHandle",   "InternetSetStatusCallbackW",
                                  "HttpOpenRequestA",    "InternetSetOptionW",    "InternetWriteFile",
                                  "InternetReadFileExA", "HttpEndRequestW",       "InternetConnectW",
                                  "HttpSendRequestExW",  "HttpAddRequestHeadersW"};

TEST_F(WinInetTableTest, ModuleThatCannotBeLoaded) {
  standIn.loadable = false;
  EXPECT_EQ(test::TakeText(LoadWinInet(standInLoader)), "Could not load wininet.dll");
  EXPECT_EQ(winInet.module, nullptr);
  EXPECT_TRUE(standIn.lookups.empty());
  // The folder of the library is tried before the plain name.
  ASSERT_FALSE(standIn.loads.empty());
  EXPECT_EQ(standIn.loads.back(), platform::WinInetModuleName().ToUtf8());
  // The system loader leaves the Win32 codes of its failures behind.
  EXPECT_EQ(SystemModuleLoader().load(String(u"qorxmlu-no-such-module")), nullptr);
  EXPECT_EQ(platform::GetLastError(), 126u);
  EXPECT_EQ(SystemModuleLoader().find(nullptr, "InternetOpenW"), nullptr);
  EXPECT_EQ(platform::GetLastError(), 127u);
}

TEST_F(WinInetTableTest, EachMissingEntryPointStopsTheLoadWithItsMessage) {
  for (std::size_t i = 0; i < std::size(entryNames); ++i) {
    SetUp();
    standIn.missing = entryNames[i];
    std::string expected =
        std::string("Could not find ") + (i == 6 ? "nternetReadFileExA" : entryNames[i]) + " in wininet.dll";
    EXPECT_EQ(test::TakeText(LoadWinInet(standInLoader)), expected);
    EXPECT_EQ(winInet.module, nullptr) << entryNames[i];
    EXPECT_EQ(standIn.releases, 1) << entryNames[i];
    // The lookups ran in the fixed order and stopped at the missing one.
    ASSERT_EQ(standIn.lookups.size(), i + 1) << entryNames[i];
    for (std::size_t j = 0; j <= i; ++j) EXPECT_EQ(standIn.lookups[j], entryNames[j]);
  }
  // Pointers found before the missing one stay; the one behind it was never touched.
  EXPECT_NE(winInet.InternetOpenW, nullptr);
  EXPECT_EQ(winInet.HttpAddRequestHeadersW, nullptr);
}

// Loading again after an unload, with the real module, is the net test's.
TEST_F(WinInetTableTest, UnloadReleasesTheModuleOnceAndEmptiesTheTable) {
  EXPECT_EQ(HttpClient::TerminateHttp(), nullptr) << "nothing loaded";
  ASSERT_EQ(LoadWinInet(standInLoader), nullptr);
  EXPECT_NE(winInet.HttpAddRequestHeadersW, nullptr);
  UnloadWinInet();
  UnloadWinInet();
  EXPECT_EQ(standIn.releases, 1);
  EXPECT_EQ(winInet.module, nullptr);
  EXPECT_EQ(winInet.InternetOpenW, nullptr) << "a request after the unload must find no table";
}

} // namespace
} // namespace QOR
