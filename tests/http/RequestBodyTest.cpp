#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "FakeWinInet.h"
#include "StringPrinter.h"
#include "TempDir.h"
#include "http/HttpClientImp.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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

// Each row is one form, consumed by the body before the next; a file is written under its name.
// Then the form goes out as a request, with the file sent from the file in blocks of every size
// that cuts the body in other places, or whole. Its first write is short and pends (so the next
// block is read meanwhile, into the other stage, and the write goes on within its block), and so
// does the second.
TEST_F(RequestBodyTest, FormsByteForByteAsBuiltAndAsSent) {
  const char raw[] = "\0\r\n--gc0p4Jq0M2Yt08jU534c0p\xff";
  const std::string binary(raw, sizeof raw - 1);
  struct Row {
    std::vector<std::pair<const char16_t*, const char16_t*>> fields;
    const char* file;
    std::string bytes;
    const char16_t* param;
    std::string body;
  } rows[] = {
      {{{u"id", u"7"}, {u"skip", u""}, {u"note", u"hi"}}, "abc.txt", "abc", u"userfile",
       TextPart("id", "7") + "\r\n" + TextPart("note", "hi") + "\r\n" + FileHead("userfile", "abc.txt") + "abc" + closing},
      {{}, nullptr, "", nullptr, closing},
      // Line ends follow the field index, not the parts written.
      {{{u"a", u""}, {u"b", u""}}, nullptr, "", nullptr, closing},
      {{{u"empty", u""}, {u"b", u"2"}}, nullptr, "", nullptr, "\r\n" + TextPart("b", "2") + closing},
      {{}, "f.bin", "x", u"up", FileHead("up", "f.bin") + "x" + closing},
      {{{u"empty", u""}}, "f.bin", "x", u"up", "\r\n" + FileHead("up", "f.bin") + "x" + closing},
      // File bytes pass unchanged; text goes out as UTF-8 without escapes.
      {{}, "zeros.bin", binary, u"", FileHead("", "zeros.bin") + binary + closing},
      {{}, "empty.bin", "", u"p", FileHead("p", "empty.bin") + closing},
      {{{u"n\u00e4me\"", u"v\u20acl\r\nue"}}, "u.txt", "1", u"f\u00fc",
       TextPart("n\xc3\xa4me\"", "v\xe2\x82\xacl\r\nue") + "\r\n" + FileHead("f\xc3\xbc", "u.txt") + "1" + closing},
  };
  test::FakeWinInet fake;
  HttpClient sender{u"agent", u"example.test", false, 5, 5};
  const std::size_t blockSize = uploadBlockSize;
  for (const Row& row : rows) {
    for (std::size_t block : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{7}, blockSize}) {
      HttpClient& form = block == 0 ? client : sender;
      for (auto [name, value] : row.fields) form.AddFormField(name, value);
      if (row.file) form.SetUploadFile(folder.Write(row.file, row.bytes), row.param);
      if (block == 0) {
        EXPECT_EQ(Body(), row.body);
        EXPECT_EQ(client.formNames.Size(), 0u);
        EXPECT_TRUE(client.uploadFile.IsEmpty());
        continue;
      }
      uploadBlockSize = block;
      fake.Script("InternetWriteFile", test::FakeCall::Pend(1, 0, 1));
      fake.Script("InternetWriteFile", test::FakeCall::Pend(1));
      String reply;
      EXPECT_EQ(test::TakeText(sender.Retrieve(u"/form", reply)), "");
      uploadBlockSize = blockSize;
      EXPECT_EQ(fake.Requests().back().body, row.body) << block;
      EXPECT_EQ(fake.Requests().back().announced, row.body.size()) << block;
    }
  }
}

// A missing file, and one whose size alone with the headers makes the body 4 GiB (sparse: it
// takes no room and is never read; a 32-bit count would wrap to a few hundred bytes).
TEST_F(RequestBodyTest, FormThatCannotBeSentFailsAndIsStillConsumed) {
  folder.Write("big.bin", "");
  std::filesystem::resize_file(folder.Path("big.bin"), 0xFFFFFFFFull - 100);
  for (const char* file : {"missing.txt", "big.bin"}) {
    client.AddFormField(u"id", u"7");
    client.SetUploadFile(folder.File(file), u"userfile");
    const char* buffer = reinterpret_cast<const char*>(1);
    std::size_t length = 99;
    std::string text = test::TakeText(client.GetRequestBuffer(boundary, buffer, length));
    EXPECT_NE(text.find(file[0] == 'm' ? "missing.txt" : "Request body too large: 4 GiB or more"), std::string::npos)
        << text;
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(client.formNames.Size(), 0u);
    EXPECT_TRUE(client.uploadFile.IsEmpty());
  }
}

} // namespace
} // namespace QOR
