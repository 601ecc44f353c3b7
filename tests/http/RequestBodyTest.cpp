#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "StringPrinter.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>

namespace QOR {
namespace {

const String boundary(u"gc0p4Jq0M2Yt08jU534c0p");

std::string TextPart(const std::string& name, const std::string& value) {
  return "--gc0p4Jq0M2Yt08jU534c0p\r\nContent-Disposition: form-data; name=\"" + name +
         "\"\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + value;
}

std::string FileHead(const std::string& param, const std::string& fileName) {
  return "--gc0p4Jq0M2Yt08jU534c0p\r\nContent-Disposition: form-data; name=\"" + param + "\"; filename=\"" + fileName +
         "\"\r\nContent-Type: application/base64\r\nContent-Transfer-Encoding: Base64\r\n\r\n";
}

const std::string closing = "\r\n--gc0p4Jq0M2Yt08jU534c0p--";

class RequestBodyTest : public testing::Test {
protected:
  // The body of the client's current form; the form is consumed.
  std::string Body() {
    const char* buffer = reinterpret_cast<const char*>(1);
    std::size_t length = 99;
    ErrorInfo* error = client.GetRequestBuffer(boundary, buffer, length);
    EXPECT_EQ(test::TakeText(error), "");
    std::string body(buffer ? buffer : "", length);
    delete[] buffer;
    return body;
  }

  HttpClient client{u"agent", u"example.test", false, 5, 5};
  test::TempDir folder;
};

TEST_F(RequestBodyTest, FieldsAndFileByteForByte) {
  std::filesystem::create_directories(folder.Path("temp"));
  String path = folder.Write("temp/abc.txt", "abc");
  client.AddFormField(u"id", u"7");
  client.AddFormField(u"skip", u"");
  client.AddFormField(u"note", u"hi");
  client.SetUploadFile(path, u"userfile");
  EXPECT_EQ(Body(), TextPart("id", "7") + "\r\n" + TextPart("note", "hi") + "\r\n" + FileHead("userfile", "abc.txt") +
                        "abc" + closing);
  // The form is consumed with the body.
  EXPECT_EQ(client.formNames.Size(), 0u);
  EXPECT_TRUE(client.uploadFile.IsEmpty());
  EXPECT_EQ(Body(), closing);
}

TEST_F(RequestBodyTest, LineEndsFollowTheFieldIndexNotThePartsWritten) {
  EXPECT_EQ(Body(), closing);
  client.AddFormField(u"a", u"");
  client.AddFormField(u"b", u"");
  EXPECT_EQ(Body(), closing);
  client.AddFormField(u"empty", u"");
  client.AddFormField(u"b", u"2");
  EXPECT_EQ(Body(), "\r\n" + TextPart("b", "2") + closing);

  String path = folder.Write("f.bin", "x");
  client.SetUploadFile(path, u"up");
  EXPECT_EQ(Body(), FileHead("up", "f.bin") + "x" + closing);
  client.AddFormField(u"empty", u"");
  client.SetUploadFile(path, u"up");
  EXPECT_EQ(Body(), "\r\n" + FileHead("up", "f.bin") + "x" + closing);
}

TEST_F(RequestBodyTest, FileBytesPassUnchanged) {
  const char raw[] = "\0\r\n--gc0p4Jq0M2Yt08jU534c0p\xff";
  std::string bytes(raw, sizeof raw - 1);
  client.SetUploadFile(folder.Write("zeros.bin", bytes), u"");
  EXPECT_EQ(Body(), FileHead("", "zeros.bin") + bytes + closing);
  client.SetUploadFile(folder.Write("empty.bin", ""), u"p");
  EXPECT_EQ(Body(), FileHead("p", "empty.bin") + closing);
}

TEST_F(RequestBodyTest, TextGoesOutAsUtf8WithoutEscapes) {
  client.AddFormField(u"n\u00e4me\"", u"v\u20acl\r\nue");
  client.SetUploadFile(folder.Write("u.txt", "1"), u"f\u00fc");
  EXPECT_EQ(Body(), TextPart("n\xc3\xa4me\"", "v\xe2\x82\xacl\r\nue") + "\r\n" + FileHead("f\xc3\xbc", "u.txt") + "1" +
                        closing);
}

TEST_F(RequestBodyTest, MissingFileFailsAndStillConsumesTheForm) {
  client.AddFormField(u"id", u"7");
  client.SetUploadFile(folder.File("missing.txt"), u"userfile");
  const char* buffer = reinterpret_cast<const char*>(1);
  std::size_t length = 99;
  std::string text = test::TakeText(client.GetRequestBuffer(boundary, buffer, length));
  EXPECT_NE(text.find("missing.txt"), std::string::npos) << text;
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(client.formNames.Size(), 0u);
  EXPECT_TRUE(client.uploadFile.IsEmpty());
}

TEST_F(RequestBodyTest, BodyOf4GiBIsRefusedBeforeTheFileIsRead) {
  // Sparse: the file takes no room, and it is never read. Its size alone, with the headers, makes
  // the body 4 GiB; a 32-bit count would wrap to a few hundred bytes.
  String path = folder.Write("big.bin", "");
  std::filesystem::resize_file(folder.Path("big.bin"), 0xFFFFFFFFull - 100);
  client.AddFormField(u"id", u"7");
  client.SetUploadFile(path, u"userfile");
  const char* buffer = reinterpret_cast<const char*>(1);
  std::size_t length = 99;
  EXPECT_EQ(test::TakeText(client.GetRequestBuffer(boundary, buffer, length)), "Request body too large: 4 GiB or more");
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(client.formNames.Size(), 0u);
}

} // namespace
} // namespace QOR
