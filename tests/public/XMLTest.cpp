#include <qorxmlu/xml/XML.h>

#include "XMLTestSupport.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

using test::Outcome;
using test::Picture;

// The application's version is process-wide: each test starts from the library's 1.
class XMLVersionTest : public ::testing::Test {
protected:
  ~XMLVersionTest() override { XML::SetAppVersion(1); }
};

std::string Message(int found, const char* software, int handled) {
  return "Sorry. A data file loaded by this application has been found to have a data version number of " +
         std::to_string(found) + ". The " + software +
         " software handles only data files of version number " + std::to_string(handled) +
         " or less. You need to upgrade to the latest software. Please visit our web site. Program may "
         "not be able to continue because of this error - ";
}

// Only the first Version attribute of the top tag counts; a lower-case one is none.
TEST_F(XMLVersionTest, ADocumentNewerThanTheApplicationIsRefused) {
  struct {
    int app;
    const char16_t* attribute;
    const char16_t* value;
    const char16_t* software;
    std::string outcome;
    int found;
  } rows[] = {
      {1, u"Version", u"2", u"Stock", Message(2, "Stock", 1), 2}, {2, u"Version", u"2", u"Stock", "", 2},
      {2, u"Version", u"-3", u"Stock", "", -3},                   {1, u"Version", u"1", u"S", "", 1},
      {0, u"version", u"5", u"S", "", 1},                         {4, u"Version", u"12", u"Lager 2", Message(12, "Lager 2", 4), 12},
  };
  for (const auto& row : rows) {
    XML::SetAppVersion(row.app);
    XML doc(u"Data", u"", row.attribute, row.value);
    if (row.attribute[0] == u'V') doc.TopTag()->AddAttr(u"Version", u"9");
    doc.TopTag()->NestTag(u"Inner", u"", u"Version", u"9");
    int version = 0;
    EXPECT_EQ(Outcome(doc.CheckVersion(row.software, u"ignored", version)), row.outcome);
    EXPECT_EQ(version, row.found) << String(row.value).ToUtf8();
  }
}

TEST(XMLTest, ConstructorsTrimValuesButNotNames) {
  EXPECT_EQ(Picture(XML(u" n ")), " n ");
  EXPECT_EQ(Picture(XML(u"n", u"  v  ")), "n[v]");
  XML withAttr(u"n", u" v", u"", u"");
  EXPECT_EQ(withAttr.TopTag()->NoOfAttributes(), 1u);
  EXPECT_EQ(Picture(withAttr), "n(=)[v]");
  withAttr.TopTag()->SetValue(u" v ");
  EXPECT_EQ(withAttr.TopTag()->GetValue(), String(u" v "));
}

} // namespace
} // namespace QOR
