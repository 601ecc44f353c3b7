#include <qorxmlu/foundation/Utility.h>

#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

namespace QOR {
namespace {

std::string Narrow(const char16_t* text, unsigned codePage, unsigned* usedDefault = nullptr) {
  std::unique_ptr<char[]> bytes(ConvertToMultibyte(text, codePage, usedDefault));
  return bytes ? std::string(bytes.get()) : std::string("<null>");
}

String Wide(const char* text, unsigned codePage) {
  std::unique_ptr<char16_t[]> units(ConvertFromMultibyte(text, codePage, nullptr));
  return units ? String(units.get()) : String(u"<null>");
}

TEST(UtilityTest, ConvertsBetweenCodePages) {
  EXPECT_EQ(Narrow(u"/path?x=é", 65001), "/path?x=\xC3\xA9");
  EXPECT_EQ(Narrow(u"POST", 0), "POST");
  unsigned usedDefault = 0;
  EXPECT_EQ(Narrow(u"é€", 28591, &usedDefault), "\xE9?");
  EXPECT_EQ(usedDefault, 1u);
  EXPECT_EQ(Narrow(u"é€", 1252, &usedDefault), "\xE9\x80");
  EXPECT_EQ(usedDefault, 0u);
  EXPECT_EQ(Narrow(u"é", 20127), "?");
  if constexpr (sizeof(wchar_t) == 4) { // no system code pages here
    EXPECT_EQ(Narrow(u"x", 932), "<null>");
  }
  EXPECT_EQ(ConvertToMultibyte(static_cast<const char16_t*>(nullptr), 0, nullptr), nullptr);
  std::unique_ptr<char[]> fromWide(ConvertToMultibyte(L"wide \u00e9", 65001, nullptr));
  EXPECT_STREQ(fromWide.get(), "wide \xC3\xA9");

  EXPECT_EQ(Wide("Gr\xC3\xBC\xC3\x9F" "e", 65001), String(u"Grüße"));
  EXPECT_EQ(Wide("\xE9\x80", 1252), String(u"é€"));
  EXPECT_EQ(Wide("\xE9\x80", 28591), String(u"é\u0080"));
  EXPECT_EQ(ConvertFromMultibyte(nullptr, 65001, nullptr), nullptr);
}

TEST(UtilityTest, RemovesLeadingFolders) {
  EXPECT_EQ(RemoveLeadPath(String(u"/tmp/upload/data.bin")), String(u"data.bin"));
  EXPECT_EQ(RemoveLeadPath(String(u"C:\\Users\\me\\trace.txt")), String(u"trace.txt"));
  EXPECT_EQ(RemoveLeadPath(String(u"plain.txt")), String(u"plain.txt"));
  EXPECT_EQ(RemoveLeadPath(String(u"folder/")), String());
}

TEST(UtilityTest, SystemErrorTexts) {
  // Before the code is set: starting a thread may itself set this thread's last error on Windows.
  std::thread([] { EXPECT_EQ(GetLastError(), 0u) << "a new thread's last error"; }).join();
  SetLastError(6);
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_FALSE(GetSystemErrMsge().IsEmpty());
  EXPECT_EQ(GetSystemErrMsge(), GetSystemErrMsge(6));
  String text = GetSystemErrMsge(2);
  EXPECT_NE(text.Len(), 0u);
  EXPECT_NE(text[text.Len() - 1], u'\n');
  if constexpr (sizeof(wchar_t) == 4) { // the texts of our own table, not the system's
    EXPECT_EQ(GetSystemErrMsge(987654), String(u"Unknown error 987654"));
  }
}

} // namespace
} // namespace QOR
