#include "http/WinInetTable.h"

#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace QOR {
namespace {

// A module loader whose module lacks one entry point, or cannot be loaded at all.
struct StandInModule {
  static inline bool loadable = true;
  static inline std::string missing;
  static inline std::vector<std::string> loads;
  static inline std::vector<std::string> lookups;
  static inline int releases = 0;
  static inline char module = 0;
  static inline char entry = 0;

  static platform::ModuleHandle Load(const String& name) {
    loads.push_back(name.ToUtf8());
    return loadable ? &module : nullptr;
  }
  static void* Find(platform::ModuleHandle, const char* name) {
    lookups.push_back(name);
    return name == missing || std::string(name) == "GetLastError" ? nullptr : &entry;
  }
  static bool Release(platform::ModuleHandle) {
    ++releases;
    return true;
  }
};

const ModuleLoader standInLoader{&StandInModule::Load, &StandInModule::Find, &StandInModule::Release};

class WinInetTableTest : public testing::Test {
protected:
  void SetUp() override {
    saved = winInet;
    winInet = WinInetTable{};
    StandInModule::loadable = true;
    StandInModule::missing.clear();
    StandInModule::loads.clear();
    StandInModule::lookups.clear();
    StandInModule::releases = 0;
  }
  void TearDown() override { winInet = saved; }

  WinInetTable saved;
};

const char* const entryNames[] = {"InternetOpenW",       "InternetCloseHandle",   "InternetSetStatusCallbackW",
                                  "HttpOpenRequestA",    "InternetSetOptionW",    "InternetWriteFile",
                                  "InternetReadFileExA", "HttpEndRequestW",       "InternetConnectW",
                                  "HttpSendRequestExW",  "HttpAddRequestHeadersW"};

TEST_F(WinInetTableTest, ModuleThatCannotBeLoaded) {
  StandInModule::loadable = false;
  EXPECT_EQ(test::TakeText(LoadWinInet(standInLoader)), "Could not load wininet.dll");
  EXPECT_EQ(winInet.module, nullptr);
  EXPECT_TRUE(StandInModule::lookups.empty());
  // The folder of the library is tried before the plain name.
  ASSERT_FALSE(StandInModule::loads.empty());
  EXPECT_EQ(StandInModule::loads.back(), platform::WinInetModuleName().ToUtf8());
  // The system loader leaves the Win32 codes of its failures behind.
  EXPECT_EQ(SystemModuleLoader().load(String(u"qorxmlu-no-such-module")), nullptr);
  EXPECT_EQ(platform::GetLastError(), 126u);
  EXPECT_EQ(SystemModuleLoader().find(nullptr, "InternetOpenW"), nullptr);
  EXPECT_EQ(platform::GetLastError(), 127u);
}

TEST_F(WinInetTableTest, EachMissingEntryPointStopsTheLoadWithItsMessage) {
  for (std::size_t i = 0; i < std::size(entryNames); ++i) {
    SetUp();
    StandInModule::missing = entryNames[i];
    std::string expected =
        std::string("Could not find ") + (i == 6 ? "nternetReadFileExA" : entryNames[i]) + " in wininet.dll";
    EXPECT_EQ(test::TakeText(LoadWinInet(standInLoader)), expected);
    EXPECT_EQ(winInet.module, nullptr) << entryNames[i];
    EXPECT_EQ(StandInModule::releases, 1) << entryNames[i];
    // The lookups ran in the fixed order and stopped at the missing one.
    ASSERT_EQ(StandInModule::lookups.size(), i + 1) << entryNames[i];
    for (std::size_t j = 0; j <= i; ++j) EXPECT_EQ(StandInModule::lookups[j], entryNames[j]);
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
  EXPECT_EQ(StandInModule::releases, 1);
  EXPECT_EQ(winInet.module, nullptr);
  EXPECT_EQ(winInet.InternetOpenW, nullptr) << "a request after the unload must find no table";
}

} // namespace
} // namespace QOR
