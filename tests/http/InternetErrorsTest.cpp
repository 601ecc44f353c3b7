#include "http/InternetErrors.h"

#include <qorxmlu/foundation/Utility.h>

#include "ErrorText.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

std::string TextOf(DWORD code) {
  String text(u"untouched");
  EXPECT_TRUE(InternetErrorText(code, text)) << code;
  return text.ToUtf8();
}

TEST(InternetErrorsTest, RowsKeepTheirExactWords) {
  EXPECT_EQ(TextOf(12001), "INTERNET OUT OF HANDLES");
  EXPECT_EQ(TextOf(12002), "INTERNET_TIMEOUT");
  EXPECT_EQ(TextOf(12007), "Problem accessing the Internet. UNRESOLVED URL");
  EXPECT_EQ(TextOf(12044), "INTERNET CLIENT _AUTH CERT NEEDED");
  EXPECT_EQ(TextOf(12046), "INTERNET CLIENT AUTH  NOT SETUP");
  EXPECT_EQ(TextOf(12150), "HTTP HEADER NOT FOUND");
  EXPECT_EQ(TextOf(12171), "INTERNET FAILED DUE TO SECURITY CHECK");
}

TEST(InternetErrorsTest, CodesWithoutRowInTheRangeAreUnspecified) {
  for (DWORD code : {12000u, 12035u, 12051u, 12054u, 12100u, 12109u, 12113u, 12149u, 12172u, 12192u})
    EXPECT_EQ(TextOf(code), "Unspecified Internet error") << code;
}

TEST(InternetErrorsTest, CodesOutsideTheRangeTakeTheSystemMessage) {
  for (DWORD code : {11999u, 12193u, 6u}) {
    String text(u"untouched");
    EXPECT_FALSE(InternetErrorText(code, text));
    EXPECT_EQ(text.ToUtf8(), "untouched");
  }
  // The words speak of the thread's last error, not of the code in hand.
  SetLastError(6);
  std::string expected = "Error closing File handle" + GetSystemErrMsge().ToUtf8();
  EXPECT_EQ(test::TakeText(MakeInternetError(String(u"Error closing File handle"), 12193)), expected);
}

TEST(InternetErrorsTest, PrefixComesFirst) {
  EXPECT_EQ(test::TakeText(MakeInternetError(String(u"Can't connect to web site: "), 12029)),
            "Can't connect to web site: CANNOT CONNECT");
}

} // namespace
} // namespace QOR
