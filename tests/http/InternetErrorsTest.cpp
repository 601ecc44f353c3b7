#include "http/InternetErrors.h"

#include <qorxmlu/foundation/Utility.h>

#include "ErrorText.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

TEST(InternetErrorsTest, TableRangeAndSystemWords) {
  auto textOf = [](DWORD code) {
    String text(u"untouched");
    return InternetErrorText(code, text) ? text.ToUtf8() : "outside: " + text.ToUtf8();
  };
  EXPECT_EQ(textOf(12002), "INTERNET_TIMEOUT");
  EXPECT_EQ(textOf(12007), "Problem accessing the Internet. UNRESOLVED URL");
  EXPECT_EQ(textOf(12171), "INTERNET FAILED DUE TO SECURITY CHECK");
  for (DWORD code : {12000u, 12035u, 12051u, 12100u, 12172u, 12192u})
    EXPECT_EQ(textOf(code), "Unspecified Internet error");
  for (DWORD code : {11999u, 12193u}) EXPECT_EQ(textOf(code), "outside: untouched");

  EXPECT_EQ(test::TakeText(MakeInternetError(String(u"Can't connect to web site: "), 12029)),
            "Can't connect to web site: CANNOT CONNECT");
  // Outside the range the words speak of the thread's last error, not of the code in hand.
  SetLastError(6);
  EXPECT_EQ(test::TakeText(MakeInternetError(String(u"Error closing File handle"), 12193)),
            "Error closing File handle" + GetSystemErrMsge().ToUtf8());
}

} // namespace
} // namespace QOR
