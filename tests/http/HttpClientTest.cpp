#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "FakeWinInet.h"
#include "StringPrinter.h"
#include "TempDir.h"
#include "http/HttpClientImp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace QOR {
namespace {

using test::FakeCall;
using test::FakeWinInet;
using test::TakeText;
using test::TakeTexts;

std::string TextPart(const std::string& name, const std::string& value) {
  return "--gc0p4Jq0M2Yt08jU534c0p\r\nContent-Disposition: form-data; name=\"" + name +
         "\"\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + value;
}

std::string FileHead(const std::string& param, const std::string& fileName) {
  return "--gc0p4Jq0M2Yt08jU534c0p\r\nContent-Disposition: form-data; name=\"" + param + "\"; filename=\"" + fileName +
         "\"\r\nContent-Type: application/base64\r\nContent-Transfer-Encoding: Base64\r\n\r\n";
}

const std::string closing = "\r\n--gc0p4Jq0M2Yt08jU534c0p--";

class RecordingClient : public HttpClient {
public:
  RecordingClient() : HttpClient(u"agent", u"example.test", false, 1, 1) {
    connectTimeout = 500;
    requestTimeout = 2000;
  }
  void ReportProgress(int percent) override {
    std::lock_guard<std::mutex> hold(lock);
    percents.push_back(percent);
    threads.push_back(std::this_thread::get_id());
  }
  std::mutex lock;
  std::vector<int> percents;
  std::vector<std::thread::id> threads;
};

class ClientTest : public testing::Test {
protected:
  // Upload files of more than 64 bytes go out from the file, 64 bytes at a time.
  void SetUp() override { uploadBlockSize = 64; }
  void TearDown() override { uploadBlockSize = blockSize; }

  std::string Retrieve(const char16_t* url = u"/q.php") {
    String reply;
    std::string error = TakeText(client.Retrieve(url, reply));
    lastReply = reply.ToUtf8();
    return error;
  }

  const std::size_t blockSize = uploadBlockSize;
  test::TempDir folder;
  FakeWinInet fake;
  RecordingClient client;
  std::string lastReply;
};

// The errors of a failed request and of the closes after it join in the order they arose.
TEST_F(ClientTest, ConnectionIsKeptAfterSuccessAndRemadeAfterFailure) {
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(fake.Count("InternetConnectW"), 1);
  EXPECT_EQ(fake.Count("InternetCloseHandle request"), 2);

  fake.Script("InternetWriteFile", FakeCall::Fail(12031));
  fake.Script("InternetCloseHandle", FakeCall::Fail(12004));
  fake.Script("InternetCloseHandle", FakeCall::Fail(12005));
  String failed;
  EXPECT_EQ(TakeTexts(client.Retrieve(u"/q", failed)),
            (std::vector<std::string>{"Can't write requested data: CONNECTION RESET",
                                      "Error closing File handleINTERNET INTERNAL ERROR",
                                      "Error closing HTTP handleINVALID URL"}));
  EXPECT_EQ(fake.Count("InternetCloseHandle root"), 1);
  // The root has no context for the callback: the callback goes first.
  EXPECT_LT(fake.Position("InternetSetStatusCallbackW null"), fake.Position("InternetCloseHandle root"));
  EXPECT_TRUE(client.RequestCancelled()) << "a dropped connection leaves the mark set";

  fake.SetReply("again");
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(lastReply, "again");
  EXPECT_EQ(fake.Count("InternetConnectW"), 2);
  EXPECT_FALSE(client.RequestCancelled());
}

TEST_F(ClientTest, FailedConnectKeepsTheForm) {
  fake.Script("InternetConnectW", FakeCall::Fail(12029));
  client.AddFormField(u"id", u"7");
  client.progressTotal = 10;
  String reply(u"untouched");
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "Can't connect to web site: CANNOT CONNECT");
  EXPECT_EQ(reply, u"untouched");
  EXPECT_EQ(client.formNames.Size(), 1u);
  EXPECT_EQ(client.progressTotal, 10u);
  EXPECT_EQ(fake.Count("HttpOpenRequestA"), 0);
}

// Each row is one form, consumed by the request that takes it; a file is written under its name.
// The file goes out from the file in blocks of every size that cuts the body in other places, or
// with the rest of the body as one block. The first write is short and pends (so the next block is
// read meanwhile, into the other stage, and the write goes on within its block), and so does the
// second.
TEST_F(ClientTest, FormsGoOutByteForByteInBlocksOfEverySize) {
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
  for (const Row& row : rows) {
    for (std::size_t block : {std::size_t{1}, std::size_t{2}, std::size_t{7}, blockSize}) {
      for (auto [name, value] : row.fields) client.AddFormField(name, value);
      if (row.file) client.SetUploadFile(folder.Write(row.file, row.bytes), row.param);
      uploadBlockSize = block;
      fake.Script("InternetWriteFile", FakeCall::Pend(1, 0, 1));
      fake.Script("InternetWriteFile", FakeCall::Pend(1));
      EXPECT_EQ(Retrieve(), "");
      EXPECT_EQ(fake.Requests().back().body, row.body) << block;
      EXPECT_EQ(fake.Requests().back().announced, row.body.size()) << block;
      EXPECT_EQ(client.formNames.Size(), 0u);
      EXPECT_TRUE(client.uploadFile.IsEmpty());
    }
  }
}

// A missing file, and one whose size alone with the headers makes the body 4 GiB (sparse: it
// takes no room and is never read; a 32-bit count would wrap to a few hundred bytes).
TEST_F(ClientTest, FormThatCannotBeSentFailsAndIsStillConsumed) {
  folder.Write("big.bin", "");
  std::filesystem::resize_file(folder.Path("big.bin"), 0xFFFFFFFFull - 100);
  for (const char* file : {"missing.txt", "big.bin"}) {
    client.AddFormField(u"id", u"7");
    client.SetUploadFile(folder.File(file), u"userfile");
    const char* buffer = reinterpret_cast<const char*>(1);
    std::size_t length = 99;
    std::string text = TakeText(client.GetRequestBuffer(u"gc0p4Jq0M2Yt08jU534c0p", buffer, length));
    EXPECT_NE(text.find(file[0] == 'm' ? "missing.txt" : "Request body too large: 4 GiB or more"), std::string::npos)
        << text;
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(client.formNames.Size(), 0u);
    EXPECT_TRUE(client.uploadFile.IsEmpty());
  }
}

TEST_F(ClientTest, ProgressOnlyWhenAskedForStartsAtZeroRisesStrictlyAndEndsAt100AnyTotal) {
  std::size_t total = 99;
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_EQ(Retrieve(), "");
  EXPECT_EQ(client.GetBytesTransferred(total), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_TRUE(client.percents.empty());

  // A total of fewer bytes than ticks gives a pace of 0: the figure then follows the bytes, and
  // still reaches 100 well within the limit.
  for (std::size_t progressTotal : {std::size_t{5000}, std::size_t{5}}) {
    client.AddFormField(u"data", String(std::u16string(10000, u'd')));
    client.progressTotal = progressTotal;
    client.progressDuration = 100;
    client.progressInterval = 10;
    EXPECT_EQ(Retrieve(), "");
    EXPECT_EQ(client.progressTotal, 0u);
    std::size_t size = fake.Requests().back().body.size();
    std::lock_guard<std::mutex> hold(client.lock);
    ASSERT_GE(client.percents.size(), 2u);
    EXPECT_EQ(client.percents.front(), 0);
    EXPECT_EQ(client.percents.back(), 100);
    for (std::size_t i = 1; i < client.percents.size(); ++i) EXPECT_GT(client.percents[i], client.percents[i - 1]);
    for (std::thread::id thread : client.threads) EXPECT_NE(thread, std::this_thread::get_id());
    std::size_t transferred = client.GetBytesTransferred(total);
    EXPECT_EQ(transferred, total);
    EXPECT_EQ(total, size);
    client.percents.clear();
  }
}

// A file that shrinks or grows while it goes out fails the request before its closing line is
// written, and the request is closed rather than ended: the server never sees a whole body.
TEST_F(ClientTest, UploadFileThatChangesSizeFailsTheRequestUnfinished) {
  for (std::size_t size : {std::size_t{100}, std::size_t{300}}) {
    String file = folder.Write("upload.bin", std::string(200, 'f'));
    client.AddFormField(u"id", u"7");
    client.SetUploadFile(file, u"userfile");
    int ends = fake.Count("HttpEndRequestW");
    fake.Script("InternetWriteFile",
                FakeCall::Succeed().Inside([&] { std::filesystem::resize_file(folder.Path("upload.bin"), size); }));
    EXPECT_EQ(Retrieve(), "Upload file changed size while it was sent '" + file.ToUtf8() + "'");
    EXPECT_TRUE(client.RequestCancelled());
    EXPECT_EQ(fake.Count("HttpEndRequestW"), ends);
    EXPECT_EQ(fake.Requests().back().body.find("--gc0p4Jq0M2Yt08jU534c0p--"), std::string::npos);
  }
}

// A derived GetRequestBuffer around HttpClient's may log the block, but a block it changes would
// lose the file behind it: that request fails before anything goes out.
TEST_F(ClientTest, DerivedBodyThatChangesTheBlockBeforeAStreamedFileFails) {
  class Wrapping : public RecordingClient {
  public:
    ErrorInfo* GetRequestBuffer(const String& boundary, const char*& buffer, std::size_t& length) override {
      ErrorInfo* error = HttpClient::GetRequestBuffer(boundary, buffer, length);
      if (change && !error) length -= 1;
      return error;
    }
    bool change = false;
  };
  Wrapping wrapping;
  const std::string bytes(100, 'w');
  for (bool change : {false, true}) {
    wrapping.change = change;
    wrapping.SetUploadFile(folder.Write("upload.bin", bytes), u"userfile");
    String reply;
    EXPECT_EQ(TakeText(wrapping.Retrieve(u"/q", reply)),
              change ? "Request body changed around an upload file that is sent from the file" : "");
  }
  EXPECT_EQ(fake.Count("HttpOpenRequestA"), 1);
  EXPECT_NE(fake.Requests().at(0).body.find("\r\n\r\n" + bytes + "\r\n--"), std::string::npos);
}

TEST(ClientLimitsTest, TimeLimitsTooLongForMillisecondsMeanNoLimit) {
  FakeWinInet fake;
  HttpClient client(u"agent", u"example.test", false, 4294968, 4294967);
  EXPECT_EQ(client.connectTimeout, 0xFFFFFFFFu);
  EXPECT_EQ(client.requestTimeout, 4294967000u);
  // Beyond what a wait takes in milliseconds, and still no limit: a request that outlives the
  // watchdog's late start is not cancelled.
  fake.Script("HttpEndRequestW", FakeCall::Pend(50));
  String reply;
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "");
}

} // namespace
} // namespace QOR
