#include <qorxmlu/foundation/Utility.h>
#include <qorxmlu/http/HttpClient.h>

#include "ErrorText.h"
#include "FakeWinInet.h"
#include "StringPrinter.h"
#include "TempDir.h"
#include "http/HttpClientImp.h"
#include "http/InternetErrors.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
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

// WinInet's error words, then the engine on its own, for an owner that hands it a plain body.

TEST(InternetErrorsTest, TableRangeAndSystemWords) {
  auto textOf = [](DWORD code) {
    String text(u"untouched");
    return InternetErrorText(code, text) ? text.ToUtf8() : "outside: " + text.ToUtf8();
  };
  EXPECT_EQ(textOf(12002), "INTERNET_TIMEOUT");
  EXPECT_EQ(textOf(12171), "INTERNET FAILED DUE TO SECURITY CHECK");
  for (DWORD code : {12000u, 12035u, 12051u, 12100u, 12172u, 12192u})
    EXPECT_EQ(textOf(code), "Unspecified Internet error");
  for (DWORD code : {11999u, 12193u}) EXPECT_EQ(textOf(code), "outside: untouched");

  // Inside the range the words follow the text (the engine's tests show it); outside it they speak
  // of the thread's last error, not of the code in hand.
  SetLastError(6);
  EXPECT_EQ(TakeText(MakeInternetError(String(u"Error closing File handle"), 12193)),
            "Error closing File handle" + GetSystemErrMsge().ToUtf8());
}

class Owner : public HttpClientBase {
public:
  Owner() : HttpClientBase(u"test agent", u"example.test", false, 1, 1) {
    connectTimeout = 300;
    requestTimeout = 300;
  }
  void UpdateBytesTransferred(std::size_t transferred, std::size_t total) override {
    updates.emplace_back(transferred, total);
  }
  ErrorInfo* GetRequestBuffer(const String&, const char*& buffer, std::size_t& length) override {
    char* block = new char[body.size()];
    std::memcpy(block, body.data(), body.size());
    buffer = block;
    length = claimed ? claimed : body.size();
    return nullptr;
  }

  std::string body = "the body";
  std::size_t claimed = 0; // a length to claim for the body instead of its own
  std::vector<std::pair<std::size_t, std::size_t>> updates;
};

// The next waits of the engine fail, as a broken wait would.
struct FailingWaits {
  static inline std::atomic<int> left{0};
  static inline int (*const previous)(SVArray<Event*, Event*>&, int) = engineWait;
  explicit FailingWaits(int count) {
    left = count;
    engineWait = [](SVArray<Event*, Event*>& events, int milliseconds) {
      return left.fetch_sub(1) > 0 ? -2 : previous(events, milliseconds);
    };
  }
  ~FailingWaits() { engineWait = previous; }
};

class EngineTest : public testing::Test {
protected:
  void Fresh(bool closeCancels = true) {
    engine.reset();
    fake.reset();
    fake = std::make_unique<FakeWinInet>(closeCancels);
    owner = std::make_unique<Owner>();
    engine = std::make_unique<HttpClientImp>(owner.get());
  }
  void SetUp() override { Fresh(); }

  void Connect() { ASSERT_EQ(TakeText(engine->Connect()), ""); }
  std::string Send() {
    EXPECT_EQ(TakeText(engine->FetchRequestBuffer()), "");
    return TakeText(engine->SendRequest(u"/path"));
  }
  // A request up to and including the call of api.
  std::string RunThrough(const std::string& api) {
    Connect();
    std::string error = Send();
    if (api != "InternetReadFileExA") return error;
    EXPECT_EQ(error, "");
    String reply;
    return TakeText(engine->ReadReply(reply));
  }

  std::unique_ptr<FakeWinInet> fake;
  std::unique_ptr<Owner> owner;
  std::unique_ptr<HttpClientImp> engine;
};

struct StepCase {
  std::string api;
  std::string immediate, timedOut, failedWait, completion;
  bool cancels;
};

const StepCase stepCases[] = {
    {"HttpOpenRequestA", "Can't get requested data: ", "Timed out opening request", "Failed opening request",
     "Error opening request: ", false},
    {"HttpSendRequestExW", "Can't send request: ", "Timed out sending request", "Failed sending request",
     "Error sending request: ", true},
    {"InternetWriteFile", "Can't write requested data: ", "Timed out writing requested data",
     "Failed writing requested data", "Error writing requested data: ", true},
    {"HttpEndRequestW", "Can't http end request: ", "Timed out ending http request", "Failed ending http request",
     "Error ending http request: ", false},
    {"InternetReadFileExA", "Can't read requested data: ", "Timed out reading requested data",
     "Failed reading requested data", "Error reading requested data: ", true},
};

TEST_F(EngineTest, PendingPatternGivesEachStepItsWords) {
  for (const StepCase& step : stepCases) {
    SCOPED_TRACE(step.timedOut);
    Fresh();
    fake->Script(step.api, FakeCall::Fail(12029));
    EXPECT_EQ(RunThrough(step.api), step.immediate + "CANNOT CONNECT");

    Fresh();
    fake->Script(step.api, FakeCall::Pend(5, 12030));
    EXPECT_EQ(RunThrough(step.api), step.completion + "CONNECTION ABORTED");

    Fresh();
    owner->requestTimeout = 60;
    fake->Script(step.api, FakeCall::Hang());
    EXPECT_EQ(RunThrough(step.api), step.timedOut);
    EXPECT_EQ(engine->RequestCancelled(), step.cancels);
    EXPECT_EQ(fake->Count("InternetCloseHandle request") > 0, step.cancels);

    Fresh();
    fake->Script(step.api, FakeCall::Hang());
    {
      FailingWaits failing(1);
      EXPECT_EQ(RunThrough(step.api), step.failedWait);
    }
    EXPECT_EQ(engine->RequestCancelled(), step.cancels);

    // A cancel from another thread ends the pending call (the engine holds the lock it takes
    // until the call has returned). An open has no handle to close yet.
    if (step.api == "HttpOpenRequestA") continue;
    Fresh();
    std::thread canceller;
    fake->Script(step.api, FakeCall::Hang().Inside([&] {
      canceller = std::thread([this] { delete engine->CancelRequest(); });
    }));
    EXPECT_EQ(RunThrough(step.api), step.completion + "OPERATION CANCELLED");
    canceller.join();
  }
}

TEST_F(EngineTest, ConnectPassesTheOwnersSettings) {
  struct {
    const char16_t* server;
    bool secure;
    const char* connect;
  } addresses[] = {{u"example.test", false, "InternetConnectW example.test:80"},
                   {u"example.test", true, "InternetConnectW example.test:443"},
                   {u"[::1]:8443", false, "InternetConnectW [::1]:8443"},
                   {u"host:1090", false, "InternetConnectW host:1090"},
                   {u"host:port", false, "InternetConnectW host:port:80"}};
  for (const auto& address : addresses) {
    Fresh();
    owner->server = address.server;
    owner->secure = address.secure;
    // A connection handle that comes through the callback serves as well.
    fake->Script("InternetConnectW", FakeCall::Pend(5));
    Connect();
    EXPECT_EQ(fake->Count(address.connect), 1) << address.connect;
    EXPECT_EQ(Send(), "");
  }
}

TEST_F(EngineTest, ConnectFailuresLeaveNothingOpen) {
  struct {
    std::string api;
    FakeCall call;
    int failedWaits;
    const char* words;
  } cases[] = {
      {"InternetOpenW", FakeCall::Fail(12004), 0, "Error opening Internet"},
      {"InternetSetStatusCallbackW", FakeCall::Fail(12004), 0, "Error setting callback for Internet"},
      {"InternetConnectW", FakeCall::Fail(12029), 0, "Can't connect to web site: CANNOT CONNECT"},
      {"InternetConnectW", FakeCall::Pend(5, 12007), 0,
       "Error connecting to web site: Problem accessing the Internet. UNRESOLVED URL"},
      {"InternetConnectW", FakeCall::Hang(), 0, "Timed out connecting to web site."},
      {"InternetConnectW", FakeCall::Hang(), 1, "Failed connecting to web site."},
  };
  for (auto& entry : cases) {
    Fresh();
    owner->connectTimeout = 60;
    fake->Script(entry.api, std::move(entry.call));
    FailingWaits failing(entry.failedWaits);
    EXPECT_EQ(TakeText(engine->Connect()), entry.words);
    // The root is closed, after its callback is taken away.
    EXPECT_EQ(fake->Count("InternetCloseHandle root"), entry.api == "InternetOpenW" ? 0 : 1) << entry.words;
    if (entry.api == "InternetConnectW")
      EXPECT_LT(fake->Position("InternetSetStatusCallbackW null"), fake->Position("InternetCloseHandle root")) << entry.words;
    // Nothing of the failure stays behind for the next connect.
    fake->Script("InternetConnectW", FakeCall::Pend(5));
    EXPECT_EQ(TakeText(engine->Connect()), "") << entry.words;
  }
}

TEST_F(EngineTest, CloseFailuresForgetTheHandle) {
  struct {
    FakeCall close;
    const char* words;
  } cases[] = {{FakeCall::Fail(12004), "Error closing File handleINTERNET INTERNAL ERROR"},
               {FakeCall::Fail(6), "Timed out trying to close File handle"},
               {FakeCall::Hang(), "Timed out trying to close File handle"},
               {FakeCall::Pend(5, 12030), "Error closing File handleCONNECTION ABORTED"}};
  for (auto& entry : cases) {
    SCOPED_TRACE(entry.words);
    Fresh();
    owner->connectTimeout = 60;
    Connect();
    EXPECT_EQ(Send(), "");
    fake->Script("InternetCloseHandle", std::move(entry.close));
    EXPECT_EQ(TakeText(engine->CloseRequest()), entry.words);
    int closes = fake->Count("InternetCloseHandle");
    EXPECT_EQ(TakeText(engine->CloseRequest()), "");
    EXPECT_EQ(fake->Count("InternetCloseHandle"), closes);
  }
}

TEST_F(EngineTest, WritesGoInChunksAndShortWritesContinueWhereTheyStopped) {
  owner->transferBlockSize = 100;
  owner->body.clear();
  for (int i = 0; i < 250; ++i) owner->body += static_cast<char>('a' + i % 26);
  Connect();
  fake->Script("InternetWriteFile", FakeCall::Succeed(60));
  fake->Script("InternetWriteFile", FakeCall::Pend(5, 0, 30));
  EXPECT_EQ(Send(), "");
  auto request = fake->Requests().at(0);
  EXPECT_EQ(request.writesOffered, (std::vector<::DWORD>{100, 100, 100, 60}));
  EXPECT_EQ(request.body, owner->body);

  owner->body.assign(100, 'x');
  EXPECT_EQ(Send(), "");
  EXPECT_EQ(fake->Requests().at(1).writesOffered, std::vector<::DWORD>{100});

  // With progress the body goes in as many chunks as there are steps, each one reported.
  owner->body.assign(1000, 'p');
  owner->progressTotal = 1000;
  owner->progressDuration = 50;
  owner->progressInterval = 10;
  EXPECT_EQ(Send(), "");
  EXPECT_EQ(fake->Requests().at(2).writesOffered, (std::vector<::DWORD>(5, 200)));
  ASSERT_EQ(owner->updates.size(), 5u);
  EXPECT_EQ(owner->updates.back(), (std::pair<std::size_t, std::size_t>{1000, 1000}));
  owner->progressInterval = 0; // taken as 1 ms
  EXPECT_EQ(Send(), "");
  EXPECT_EQ(fake->Requests().at(3).writesOffered, (std::vector<::DWORD>(50, 20)));
}

// An owner may build its own body; the engine holds it to WinInet's 32-bit length too.
TEST_F(EngineTest, BodyOf4GiBFromTheOwnerIsNeverSent) {
  owner->claimed = std::size_t{1} << 32;
  Connect();
  EXPECT_EQ(Send(), "Request body too large: 4 GiB or more");
  EXPECT_EQ(fake->Count("HttpOpenRequestA"), 0);
}

// REPLACE goes first, and ADD follows only when there is no header to replace (12150). Other
// failures of REPLACE go unreported; a failed ADD ends the step, and the failure of the end that
// follows is not reported.
TEST_F(EngineTest, HeaderCallReplacesThenAdds) {
  struct {
    std::vector<::DWORD> headerErrors;
    ::DWORD endError;
    const char* words;
    int adds, sends;
  } rows[] = {{{12150}, 0, "", 1, 1},
              {{12019}, 0, "", 0, 1},
              {{12150, 12153}, 12018, "Error adding request headers: INVALID HEADER", 1, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.headerErrors.back());
    Fresh();
    Connect();
    for (::DWORD error : row.headerErrors) fake->Script("HttpAddRequestHeadersW", FakeCall::Fail(error));
    if (row.endError) fake->Script("HttpEndRequestW", FakeCall::Fail(row.endError));
    EXPECT_EQ(Send(), row.words);
    EXPECT_LT(fake->Position("HttpAddRequestHeadersW REPLACE"), fake->Position("HttpAddRequestHeadersW ADD"));
    EXPECT_EQ(fake->Count("HttpAddRequestHeadersW ADD"), row.adds);
    EXPECT_EQ(fake->Count("HttpSendRequestExW"), row.sends);
    EXPECT_EQ(fake->Count("HttpEndRequestW"), 1);
  }
}

TEST_F(EngineTest, CancelBetweenTheCallAndTheStore) {
  for (bool pending : {false, true}) {
    SCOPED_TRACE(pending ? "pending open" : "open at once");
    Fresh();
    Connect();
    FakeCall open = pending ? FakeCall::Pend(5) : FakeCall::Succeed();
    fake->Script("HttpOpenRequestA", std::move(open).Inside([this] { delete engine->CancelRequest(); }));
    EXPECT_EQ(Send(), "Request cancelled");
    EXPECT_TRUE(engine->RequestCancelled());
    EXPECT_EQ(fake->Count("HttpEndRequestW"), 0);
    EXPECT_EQ(TakeText(engine->CloseRequest()), "");
    EXPECT_EQ(fake->Count("InternetCloseHandle"), 0) << "the handle was never stored";
  }
  // The next request clears the mark.
  EXPECT_EQ(Send(), "");
  EXPECT_FALSE(engine->RequestCancelled());
  // With nothing in flight a cancel only sets the mark.
  EXPECT_EQ(TakeText(engine->CloseRequest()), "");
  int closes = fake->Count("InternetCloseHandle");
  EXPECT_EQ(TakeText(engine->CancelRequest()), "");
  EXPECT_TRUE(engine->RequestCancelled());
  EXPECT_EQ(fake->Count("InternetCloseHandle"), closes);
}

// A read that fails leaves the reply and the buffer alone. After a failed wait the Base64 read
// looks at the completion, which the cancel that follows makes 12017.
TEST_F(EngineTest, FailedReadsLeaveTheReplyAlone) {
  for (bool base64 : {false, true}) {
    for (int failedWaits : {0, 1}) {
      Fresh();
      fake->SetReply("abcdef");
      Connect();
      EXPECT_EQ(Send(), "");
      if (!failedWaits) fake->Script("InternetReadFileExA", FakeCall::Succeed(3));
      fake->Script("InternetReadFileExA", failedWaits ? FakeCall::Hang() : FakeCall::Fail(12030));
      FailingWaits failing(failedWaits);
      String reply(u"before");
      char* buffer = nullptr;
      std::size_t length = 99;
      std::string text = base64 ? TakeText(engine->ReadBase64Reply(4, buffer, length)) : TakeText(engine->ReadReply(reply));
      EXPECT_EQ(text, !failedWaits   ? "Can't read requested data: CONNECTION ABORTED"
                      : base64       ? "Error reading requested data: OPERATION CANCELLED"
                                     : "Failed reading requested data");
      EXPECT_EQ(reply, u"before");
      // A short read leaves the rest of its block to the next read, not more.
      if (!failedWaits) EXPECT_EQ(fake->Count("InternetReadFileExA " + std::to_string((base64 ? 4 : 102400) - 3)), 1);
      EXPECT_EQ(buffer, nullptr);
      EXPECT_EQ(length, 99u);
    }
  }
}

// Under Wine a close leaves a pending call running; its completion and HANDLE_CLOSING may come
// while the engine runs the next request, or after it is gone. They must land in memory that is
// still there (checked under ASan) and not disturb the next request.
TEST_F(EngineTest, LateCallbacksFindNothingFreed) {
  for (std::string api : {"InternetReadFileExA", "HttpEndRequestW", "InternetWriteFile"}) {
    Fresh(false);
    owner->requestTimeout = 50;
    owner->connectTimeout = 50;
    owner->body.assign(300000, 'b');
    // The end fails late, the others succeed late.
    fake->Script(api, FakeCall::Hang(api == "HttpEndRequestW" ? 12030 : 0));
    std::string error = RunThrough(api);
    EXPECT_NE(error.find("Timed out"), std::string::npos) << error;
    delete engine->Disconnect();
    if (api == "InternetWriteFile") {
      engine.reset();
      fake->SetReply(std::string(200000, 'r'));
      fake->ReleaseHung();
      continue;
    }
    // The late completion comes in the middle of the next request, which reads its own reply and
    // does not take the late error for one of its own end.
    owner->requestTimeout = 1000;
    owner->connectTimeout = 1000;
    owner->body = "second";
    fake->SetReply("second reply");
    Connect();
    fake->Script("HttpSendRequestExW", FakeCall::Succeed().Inside([this] { fake->ReleaseHung(); }));
    fake->Script("HttpEndRequestW", FakeCall::Pend(5));
    EXPECT_EQ(Send(), "");
    String reply;
    EXPECT_EQ(TakeText(engine->ReadReply(reply)), "");
    EXPECT_EQ(reply, u"second reply");
  }
}

// HttpClient over the engine: the form, the body and the progress figure.

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

  std::string Retrieve() {
    String reply;
    return TakeText(client.Retrieve(u"/q.php", reply));
  }

  const std::size_t blockSize = uploadBlockSize;
  test::TempDir folder;
  FakeWinInet fake;
  RecordingClient client;
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
  String reply;
  EXPECT_EQ(TakeTexts(client.Retrieve(u"/q", reply)),
            (std::vector<std::string>{"Can't write requested data: CONNECTION RESET",
                                      "Error closing File handleINTERNET INTERNAL ERROR",
                                      "Error closing HTTP handleINVALID URL"}));
  EXPECT_EQ(fake.Count("InternetCloseHandle root"), 1);
  // The root has no context for the callback: the callback goes first.
  EXPECT_LT(fake.Position("InternetSetStatusCallbackW null"), fake.Position("InternetCloseHandle root"));
  EXPECT_TRUE(client.RequestCancelled()) << "a dropped connection leaves the mark set";

  fake.SetReply("again");
  EXPECT_EQ(TakeText(client.Retrieve(u"/q", reply)), "");
  EXPECT_EQ(reply, u"again");
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
    EXPECT_EQ(client.GetBytesTransferred(total), size);
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

TEST_F(ClientTest, TimeLimitsTooLongForMillisecondsMeanNoLimit) {
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
