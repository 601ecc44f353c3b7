// SimpleSoap: the refused copies, and RunQuery against the fake web service.
#include <qorxmlu/query/SimpleSoap.h>

#include <qorxmlu/xml/XMLTag.h>

#include "ErrorText.h"
#include "ServiceTest.h"
#include "StringPrinter.h"
#include "TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace QOR {
namespace {

using test::TakeText;
using Texts = std::vector<std::string>;

// The Field tags of a /fields reply as "name=value", or "name[file]=content" for the upload.
Texts FieldsOf(const SimpleSoap& soap) {
  Texts fields;
  for (std::size_t i = 0; i < soap.TopTag()->NoOfNestedTags(); ++i) {
    XMLTag* tag = soap.TopTag()->GetNestedTag(i);
    if (tag->GetName() != String(u"Field")) continue;
    std::string file = tag->NoOfAttributes() > 1 ? "[" + tag->GetAttrVal(1).ToUtf8() + "]" : "";
    fields.push_back(tag->GetAttrVal(0).ToUtf8() + file + "=" + tag->GetValue().ToUtf8());
  }
  return fields;
}

TEST(SimpleSoapTest, KeepsWhatItWasGivenAndRefusesCopiesWithTheirTexts) {
  SimpleSoap source("service/echo", 3, "sub");
  source.AddParameter("a", "1");
  source.AddParameter("a", "2");
  source.AddFileUploadParam("file.bin");
  EXPECT_EQ(source.GetUrl(), u"service/echo");
  EXPECT_EQ(source.QueryID(), 3u);
  EXPECT_EQ(source.QuerySubID(), u"sub");
  EXPECT_EQ(source.FileUploadParam(), u"file.bin");
  ASSERT_EQ(source.GetNames().Size(), 2u);
  EXPECT_EQ(source.GetNames()[1], u"a");
  EXPECT_EQ(source.GetValues()[1], u"2");

  SimpleSoap target(u"b", 2, u"two");
  EXPECT_THAT([&] { SimpleSoap copy(source); },
              testing::Throws<char*>(testing::StrEq("SimpleSoap copy ctor not supported")));
  EXPECT_THAT([&] { target = source; }, testing::Throws<const char*>(testing::StrEq("SimpleSoap op = not supported")));
  EXPECT_EQ(target.GetUrl(), u"b");
  EXPECT_EQ(target.QuerySubID(), u"two");
}

class RunQueryTest : public test::ServiceTest {
protected:
  std::unique_ptr<HttpClient> client = ServiceClient();
  test::TempDir folder;
};

TEST_F(RunQueryTest, SendsParametersInOrderWithTheUploadAndReplacesTheReply) {
  SimpleSoap soap(u"fields", 7, u"sub");
  soap.AddParameter(u"a", u"1");
  soap.AddParameter(u"skip", u"");
  soap.AddParameter(u"a", u"2");
  soap.AddParameter(u"userfile", u"param");
  soap.AddFileUploadParam(folder.Write("first.txt", "not this one"));
  soap.AddFileUploadParam(folder.Write("second.txt", "upload"));
  client->AddFormField(u"stale", u"x"); // from an earlier request
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  // The empty value stays in the query; the body leaves it out.
  EXPECT_EQ(soap.GetValues()[1], u"");
  EXPECT_EQ(FieldsOf(soap), (Texts{"a=1", "a=2", "userfile=param", "userfile[second.txt]=upload"}));

  // An empty path turns the upload off; the second reply replaces the first.
  soap.AddFileUploadParam(u"");
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  EXPECT_EQ(FieldsOf(soap), (Texts{"a=1", "a=2", "userfile=param"}));
  EXPECT_EQ(soap.QueryID(), 7u);
}

TEST_F(RunQueryTest, ResultFileTakesTheRawReplyAndTheDocumentStays) {
  SimpleSoap soap(u"order", 0, u"");
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  // A failed request leaves the previous reply in place. The reader's errors:
  // SoapQueueTest.StatusTagsDecideTheOutcome.
  auto refused = ClientOf(test::TheSoapService().refused);
  EXPECT_NE(TakeText(soap.RunQuery(refused.get())), "");
  EXPECT_NE(soap.TopTag()->FindNestedTag(u"Order"), nullptr);

  SimpleSoap page(u"answer", 0, u"");
  page.AddParameter(u"reply", u"no xml \u20ac\r\nat all");
  page.SetHtmlResult(folder.File("result.html"));
  ASSERT_EQ(TakeText(page.RunQuery(client.get())), "");
  EXPECT_EQ(folder.Read("result.html"), "no xml \xe2\x82\xac\r\nat all");

  // The same query, now saved: the document keeps the parsed reply; an empty reply empties the file.
  soap.SetHtmlResult(folder.File("result.html"));
  ASSERT_EQ(TakeText(soap.RunQuery(client.get())), "");
  EXPECT_NE(folder.Read("result.html").find("<Order>"), std::string::npos);
  EXPECT_NE(soap.TopTag()->FindNestedTag(u"Order"), nullptr);
  SimpleSoap empty(u"answer", 0, u"");
  empty.SetHtmlResult(folder.File("result.html"));
  ASSERT_EQ(TakeText(empty.RunQuery(client.get())), "");
  EXPECT_EQ(folder.Read("result.html"), "");

  empty.SetHtmlResult(folder.File("no-such-folder/result.html"));
  EXPECT_NE(TakeText(empty.RunQuery(client.get())), "");
}

// A client whose overrides note what RunQuery reaches.
class NotingClient : public HttpClient {
public:
  using HttpClient::HttpClient;
  void ClearFormFields() override {
    fieldsAtClear.push_back(formNames.Size());
    HttpClient::ClearFormFields();
  }
  ErrorInfo* Retrieve(String, String&) override { return MakeError(u"override reached"); }
  std::vector<std::size_t> fieldsAtClear;
};

TEST_F(RunQueryTest, ClearsThroughTheVirtualTableButPostsWithTheClientsOwnRetrieve) {
  NotingClient noting(u"qorxmlu tests", String::FromUtf8(test::TheSoapService().service), false, 5, 10);
  noting.AddUrlPrefix(u"/");
  noting.AddFormField(u"stale", u"x");
  SimpleSoap soap(u"fields", 0, u"");
  soap.AddParameter(u"p", u"1");
  ASSERT_EQ(TakeText(soap.RunQuery(&noting)), "");
  // The first clear comes before the query's own field is added.
  ASSERT_FALSE(noting.fieldsAtClear.empty());
  EXPECT_EQ(noting.fieldsAtClear.front(), 1u);
  EXPECT_EQ(FieldsOf(soap), (Texts{"p=1"}));
}

} // namespace
} // namespace QOR
