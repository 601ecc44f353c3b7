// SimpleSoap: the refused copies, and RunQuery against the fake web service.
#include <qorxmlu/query/SimpleSoap.h>

#include <qorxmlu/xml/XMLTag.h>

#include "ErrorText.h"
#include "ServiceTest.h"
#include "StringPrinter.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace QOR {
namespace {

using test::TakeText;
using test::TakeTexts;

// The Field tags of a /fields reply as "name=value" ("name[file]=content" for a file part).
std::vector<std::string> FieldsOf(const SimpleSoap& soap) {
  std::vector<std::string> fields;
  XMLTag* top = soap.TopTag();
  for (std::size_t i = 0; i < top->NoOfNestedTags(); ++i) {
    XMLTag* tag = top->GetNestedTag(i);
    if (tag->GetName() != String(u"Field")) continue;
    std::string entry = tag->GetAttrVal(0).ToUtf8();
    if (tag->NoOfAttributes() > 1) entry += "[" + tag->GetAttrVal(1).ToUtf8() + "]";
    fields.push_back(entry + "=" + tag->GetValue().ToUtf8());
  }
  return fields;
}

TEST(SimpleSoapTest, CopyAndAssignmentThrowTheirTexts) {
  SimpleSoap source(u"a", 1, u"one");
  try {
    SimpleSoap copy(source);
    FAIL() << "copied";
  } catch (char* text) {
    EXPECT_STREQ(text, "SimpleSoap copy ctor not supported");
  }
  SimpleSoap target(u"b", 2, u"two");
  target.AddParameter(u"kept", u"yes");
  try {
    target = source;
    FAIL() << "assigned";
  } catch (const char* text) {
    EXPECT_STREQ(text, "SimpleSoap op = not supported");
  }
  EXPECT_EQ(target.GetUrl(), u"b");
  EXPECT_EQ(target.QueryID(), 2u);
  EXPECT_EQ(target.GetNames().Size(), 1u);
}

class RunQueryTest : public test::ServiceTest {
protected:
  std::unique_ptr<HttpClient> client = ServiceClient();
  test::TempDir folder;
};

TEST_F(RunQueryTest, SendsParametersInOrderAndTheUpload) {
  SimpleSoap soap(u"fields", 7, u"sub");
  soap.AddParameter(u"a", u"1");
  soap.AddParameter(u"skip", u"");
  soap.AddParameter(u"a", u"2");
  soap.AddParameter(u"userfile", u"param");
  soap.AddFileUploadParam(folder.Write("first.txt", "not this one"));
  soap.AddFileUploadParam(folder.Write("second.txt", "upload"));
  // Left over from another request: RunQuery clears the client's form first.
  client->AddFormField(u"stale", u"x");

  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  // The empty value stays in the query; the body leaves it out.
  EXPECT_EQ(soap.GetNames().Size(), 4u);
  EXPECT_EQ(soap.GetValues()[1], u"");
  EXPECT_EQ(FieldsOf(soap),
            (std::vector<std::string>{"a=1", "a=2", "userfile=param", "userfile[second.txt]=upload"}));
  EXPECT_EQ(soap.QueryID(), 7u);
  EXPECT_EQ(soap.QuerySubID(), u"sub");

  // An empty path turns the upload off.
  soap.AddFileUploadParam(u"");
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  EXPECT_EQ(FieldsOf(soap), (std::vector<std::string>{"a=1", "a=2", "userfile=param"}));
}

TEST_F(RunQueryTest, SecondRunSendsAgainAndReplacesTheDocument) {
  SimpleSoap soap(u"order", 0, u"");
  soap.AddParameter(u"caller", u"me");
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  int first = 0;
  *soap.TopTag()->FindNestedTag(u"Order") >> first;
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  int second = 0;
  *soap.TopTag()->FindNestedTag(u"Order") >> second;
  EXPECT_EQ(second, first + 1);
  EXPECT_EQ(soap.TopTag()->NoOfNestedTags(), 3u);
  EXPECT_EQ(soap.TopTag()->FindNestedTag(u"Caller")->GetValue(), u"me");
}

TEST_F(RunQueryTest, TransportAndParseErrorsPassThrough) {
  SimpleSoap soap(u"order", 0, u"");
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");

  // A failed request leaves the previous reply in place.
  auto refused = ClientOf(test::TheSoapService().refused);
  EXPECT_NE(TakeText(soap.RunQuery(refused.get())), "");
  EXPECT_NE(soap.TopTag()->FindNestedTag(u"Order"), nullptr);

  SimpleSoap empty(u"answer", 0, u"");
  EXPECT_EQ(TakeText(empty.RunQuery(client.get())), "Empty XML data");
  SimpleSoap page(u"answer", 0, u"");
  page.AddParameter(u"reply", u"<html>\r\nNot found\r\n</html>");
  EXPECT_EQ(TakeText(page.RunQuery(client.get())), "Unrecognised XML version");
}

TEST_F(RunQueryTest, ResultFileTakesTheRawReplyAndTheDocumentStays) {
  const std::u16string document = u"<?xml version=\"1.0\"?>\r\n<Reply>\r\n<Marker>1</Marker>\r\n</Reply>";
  SimpleSoap soap(u"answer", 0, u"");
  soap.AddParameter(u"reply", document);
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  soap.SetHtmlResult(folder.File("result.xml"));
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  EXPECT_EQ(folder.Read("result.xml"), String(document).ToUtf8());
  EXPECT_NE(soap.TopTag()->FindNestedTag(u"Marker"), nullptr);

  // A reply that is no XML is saved as it came; an empty one gives an empty file.
  SimpleSoap page(u"answer", 0, u"");
  page.AddParameter(u"reply", u"no xml at all \u20ac\r\nsecond line");
  page.SetHtmlResult(folder.File("result.html"));
  ASSERT_EQ(TakeText(page.RunQuery(client.get())), "");
  EXPECT_EQ(folder.Read("result.html"), "no xml at all \xe2\x82\xac\r\nsecond line");
  SimpleSoap empty(u"answer", 0, u"");
  empty.SetHtmlResult(folder.File("result.html"));
  ASSERT_EQ(TakeText(empty.RunQuery(client.get())), "");
  EXPECT_EQ(folder.Read("result.html"), "");

  SimpleSoap nowhere(u"answer", 0, u"");
  nowhere.SetHtmlResult(folder.File("no-such-folder/result.html"));
  EXPECT_NE(TakeText(nowhere.RunQuery(client.get())), "");
}

// A client whose overrides note what RunQuery reaches.
class CountingClient : public HttpClient {
public:
  using HttpClient::HttpClient;
  void ClearFormFields() override {
    fieldsAtClear.push_back(formNames.Size());
    HttpClient::ClearFormFields();
  }
  ErrorInfo* Retrieve(String, String&) override {
    ++retrieves;
    return MakeError(u"override reached");
  }
  std::vector<std::size_t> fieldsAtClear;
  int retrieves = 0;
};

TEST_F(RunQueryTest, ClearsThroughTheVirtualTableButPostsWithTheClientsOwnRetrieve) {
  CountingClient counting(u"qorxmlu tests", String::FromUtf8(test::TheSoapService().service), false, 5, 10);
  counting.AddUrlPrefix(u"/");
  counting.AddFormField(u"stale", u"x");
  SimpleSoap soap(u"fields", 0, u"");
  soap.AddParameter(u"p", u"1");
  ASSERT_EQ(TakeText(soap.RunQuery(&counting)), "");
  // The first clear comes before the query's own field is added.
  ASSERT_FALSE(counting.fieldsAtClear.empty());
  EXPECT_EQ(counting.fieldsAtClear.front(), 1u);
  EXPECT_EQ(counting.retrieves, 0);
  EXPECT_EQ(FieldsOf(soap), (std::vector<std::string>{"p=1"}));
}

} // namespace
} // namespace QOR
