// SafeTrace: the lines in the file, from one thread and from many, and the upload of an old file
// to the fake web service.
#include <qorxmlu/trace/SafeTrace.h>

#include "ErrorText.h"
#include "ServiceTest.h"
#include "TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace QOR {
namespace {

using test::TakeText;

class SafeTraceTest : public test::ServiceTest {
protected:
  void SetUp() override {
    ServiceTest::SetUp();
    SafeTrace::SetTracePath(folder.File("trace.txt"));
  }
  std::string TraceFile() const { return folder.Read("trace.txt"); }

  // What the service has received at /php/SafeTrace.php: the number of uploads, and the body of
  // the last one.
  static std::pair<int, std::string> Uploads() {
    auto client = ServiceClient();
    String reply;
    EXPECT_EQ(TakeText(client->Retrieve(u"uploads", reply)), "");
    std::string text = reply.ToUtf8();
    std::size_t lineEnd = text.find("\r\n");
    return {std::stoi(text.substr(0, lineEnd)), text.substr(lineEnd + 2)};
  }

  test::TempDir folder;
};

void Traced(const SafeTrace& tracer) {
  SafeTrace::FuncTrace trace("Fails", tracer);
  throw std::runtime_error("out");
}

TEST_F(SafeTraceTest, WritesTheExactLines) {
  SafeTrace tracer("Host");
  {
    SafeTrace::FuncTrace trace("Run", tracer);
    trace.Trace(u"step 1");
    trace.Trace(u"");
    SafeTrace::Trace(u"plain");
  }
  SafeTrace anonymous("");
  { SafeTrace::FuncTrace trace("F", anonymous); }
  SafeTrace wide("Gr\xc3\xbc\xc3\x9f" "e");
  {
    SafeTrace::FuncTrace trace("\xe6\x97\xa5", wide);
    trace.Trace(u"\u20ac two\r\nlines");
  }
  EXPECT_THROW(Traced(tracer), std::runtime_error);

  EXPECT_EQ(TraceFile(),
            "Entering Host::Run\r\n"
            "Host::Run: step 1\r\n"
            "Host::Run: \r\n"
            "plain\r\n"
            "Leaving Host::Run\r\n"
            "Entering ::F\r\n"
            "Leaving ::F\r\n"
            "Entering Gr\xc3\xbc\xc3\x9f" "e::\xe6\x97\xa5\r\n"
            "Gr\xc3\xbc\xc3\x9f" "e::\xe6\x97\xa5: \xe2\x82\xac two\r\nlines\r\n"
            "Leaving Gr\xc3\xbc\xc3\x9f" "e::\xe6\x97\xa5\r\n"
            "Entering Host::Fails\r\n"
            "Leaving Host::Fails\r\n");

  // Lines around and over the size that still fits on the stack.
  std::string expected = TraceFile();
  for (std::size_t units : {339u, 340u, 341u, 342u, 1000u}) {
    SafeTrace::Trace(String(std::u16string(units, u'\u20ac')));
    for (std::size_t i = 0; i < units; ++i) expected += "\xe2\x82\xac";
    expected += "\r\n";
  }
  EXPECT_EQ(TraceFile(), expected);
}

TEST_F(SafeTraceTest, LinesOfManyThreadsNeverMix) {
  const int threads = 8;
  const int perThread = 300;
  std::vector<std::thread> tracers;
  for (int t = 0; t < threads; ++t) {
    tracers.emplace_back([t] {
      SafeTrace tracer(("Thread" + std::to_string(t)).c_str());
      SafeTrace::FuncTrace trace("Body", tracer);
      for (int i = 0; i < perThread; ++i) trace.Trace(String::FromUtf8(std::string(20 + t * 10, 'a' + t)));
    });
  }
  for (auto& tracer : tracers) tracer.join();

  std::map<std::string, int> counts;
  std::string text = TraceFile();
  for (std::size_t start = 0; start < text.size();) {
    std::size_t end = text.find("\r\n", start);
    ASSERT_NE(end, std::string::npos) << "a line without its line end";
    ++counts[text.substr(start, end - start)];
    start = end + 2;
  }
  EXPECT_EQ(counts.size(), 3u * threads);
  for (int t = 0; t < threads; ++t) {
    std::string name = "Thread" + std::to_string(t) + "::Body";
    EXPECT_EQ(counts["Entering " + name], 1);
    EXPECT_EQ(counts[name + ": " + std::string(20 + t * 10, 'a' + t)], perThread);
    EXPECT_EQ(counts["Leaving " + name], 1);
  }
}

TEST_F(SafeTraceTest, ClientUploadsTheOldFileAndEmptiesIt) {
  auto client = ServiceClient();
  int before = Uploads().first;
  // No file: no request, and an empty file afterwards.
  SafeTrace::SetTraceClient(client.get());
  EXPECT_EQ(Uploads().first, before);
  EXPECT_TRUE(std::filesystem::exists(folder.Path("trace.txt")));

  SafeTrace::Trace(u"from the last run");
  SafeTrace::SetTraceClient(client.get());
  EXPECT_EQ(TraceFile(), "");
  auto [count, body] = Uploads();
  EXPECT_EQ(count, before + 1);
  const std::string filePart = "--gc0p4Jq0M2Yt08jU534c0p\r\nContent-Disposition: form-data; name=\"userfile\"; "
                               "filename=\"trace.txt\"\r\nContent-Type: application/base64\r\n"
                               "Content-Transfer-Encoding: Base64\r\n\r\n";
  EXPECT_EQ(body, "--gc0p4Jq0M2Yt08jU534c0p\r\nContent-Disposition: form-data; name=\"dummy\"\r\n"
                  "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\ndummy\r\n" +
                      filePart + "from the last run\r\n\r\n--gc0p4Jq0M2Yt08jU534c0p--");

  // An empty file is sent all the same, and tracing goes on in the emptied file.
  SafeTrace::SetTraceClient(client.get());
  EXPECT_EQ(Uploads().first, before + 2);
  EXPECT_NE(Uploads().second.find(filePart + "\r\n--"), std::string::npos);
  SafeTrace::Trace(u"next");
  EXPECT_EQ(TraceFile(), "next\r\n");
}

TEST_F(SafeTraceTest, ClientWithTheServerDownOrNoFolder) {
  SafeTrace::Trace(u"lost");
  auto down = ClientOf(test::TheSoapService().refused);
  SafeTrace::SetTraceClient(down.get());
  EXPECT_EQ(TraceFile(), "");

  SafeTrace::SetTracePath(folder.File("no-such-folder/trace.txt"));
  SafeTrace::Trace(u"lost without a word");
  EXPECT_THAT([&] { SafeTrace::SetTraceClient(down.get()); },
              testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Failed to open SafeTrace file")));
  // The lock is free again.
  SafeTrace::SetTracePath(folder.File("trace.txt"));
  SafeTrace::Trace(u"after");
  EXPECT_EQ(TraceFile(), "after\r\n");
}

} // namespace
} // namespace QOR
