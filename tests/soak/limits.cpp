// The limits of one reply and one document, each with its time and the peak resident memory it
// took (the peak is reset before each):
//   a reply of more than 4 GiB             refused, the buffer released
//   a reply line of 100 MB                 read into a query's document
//   a document of 10 million tags          read, and written again
// A 1 GiB upload file runs in bench/bench_http (its peak beside libcurl's), and the body of
// 4 GiB or more is refused in the http tests (HttpClientTest, RequestBodyTest).
#include <qorxmlu/http/HttpClient.h>
#include <qorxmlu/query/SimpleSoap.h>
#include <qorxmlu/xml/XML.h>
#include <qorxmlu/xml/XMLTag.h>

#include "support/ErrorText.h"
#include "support/RawServer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace QOR;
using namespace std::chrono_literals;
using test::TakeText;

constexpr std::uint64_t GiB = 1ull << 30;
constexpr std::uint64_t MB = 1000ull * 1000;

void ResetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

long PeakMiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6) / 1024;
  return -1;
}

int failures = 0;

// Runs one limit; check gives "" when it held, or what went wrong.
void Limit(const char* name, const std::function<std::string()>& check) {
  ResetPeak();
  auto start = std::chrono::steady_clock::now();
  std::string problem = check();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%-32s %-5s %8.1f s  peak %6ld MiB%s%s\n", name, problem.empty() ? "ok" : "FAIL", seconds, PeakMiB(),
              problem.empty() ? "" : "  ", problem.c_str());
  std::fflush(stdout);
  if (!problem.empty()) ++failures;
}

std::unique_ptr<HttpClient> ClientOf(const test::RawServer& server) {
  return std::make_unique<HttpClient>(u"qorxmlu limits", String::FromUtf8(server.HostPort()), false, 5, 600);
}

std::string ReplyOver4GiB() {
  test::RawServer server([](test::RawConnection& connection) {
    if (!connection.ReadRequest()) return;
    const std::string chunk(1 << 20, 'A');
    connection.Send(test::RawServer::ResponseHead(200, "OK", 4 * GiB + 16 * chunk.size()));
    for (std::uint64_t sent = 0; sent < 4 * GiB + 16 * chunk.size() && connection.Send(chunk);) sent += chunk.size();
  });
  auto client = ClientOf(server);
  char* buffer = nullptr;
  std::size_t length = 0;
  std::string error = TakeText(client->RetrieveBase64(0xFFFFFFFF, u"/big", buffer, length));
  delete[] buffer;
  if (error != "Reply too large: 4 GiB or more") return "got \"" + error + "\"";
  if (buffer) return "a buffer came back";
  return "";
}

std::string ReplyLineOf100MB() {
  const std::string head = "<?xml version=\"1.0\"?>\r\n<Reply>\r\n<Success>0</Success>\r\n<Line>";
  const std::string tail = "</Line>\r\n</Reply>\r\n";
  test::RawServer server([&](test::RawConnection& connection) {
    if (!connection.ReadRequest()) return;
    const std::string chunk(MB, 'x');
    connection.Send(test::RawServer::ResponseHead(200, "OK", head.size() + 100 * MB + tail.size()) + head);
    for (int i = 0; i < 100 && connection.Send(chunk); ++i) {
    }
    connection.Send(tail);
    connection.WaitForClientClose(60s);
  });
  auto client = ClientOf(server);
  // What a query's RunQuery does, in two timed halves.
  SimpleSoap query(u"/line", 1, u"");
  String reply;
  auto start = std::chrono::steady_clock::now();
  if (std::string error = TakeText(client->Retrieve(u"/line", reply)); !error.empty()) return error;
  double readSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  start = std::chrono::steady_clock::now();
  if (std::string error = TakeText(query.ReadText(std::move(reply))); !error.empty()) return error;
  double parseSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("  (100 MB line: reply read %.1f s, document read %.1f s)\n", readSeconds, parseSeconds);
  XMLTag* line = query.TopTag() ? query.TopTag()->FindNestedTag(u"Line") : nullptr;
  if (!line || line->GetValue().Len() != 100 * MB) return "the line did not arrive whole";
  return "";
}

std::string DocumentOf10MillionTags() {
  constexpr std::size_t tags = 10'000'000;
  String text(u"<?xml version=\"1.0\"?>\r\n<Top>\r\n");
  std::u16string& units = text.Std();
  units.reserve(tags * 16);
  for (std::size_t i = 0; i < tags - 1; ++i) {
    units += u"\t<T a=\"";
    units += static_cast<char16_t>(u'0' + i % 10);
    units += u"\">v</T>\r\n";
  }
  units += u"</Top>\r\n";
  XML document;
  auto start = std::chrono::steady_clock::now();
  if (std::string error = TakeText(document.ReadText(std::move(text))); !error.empty()) return error;
  double readSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!document.TopTag() || document.TopTag()->NoOfNestedTags() != tags - 1) return "tags went missing";
  start = std::chrono::steady_clock::now();
  std::size_t written = document.GetText().Len();
  double writeSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("  (10 million tags: read %.1f s, written %.1f s, %zu characters)\n", readSeconds, writeSeconds,
              written);
  return written > tags * 10 ? "" : "the written text is too short";
}

} // namespace

int main() {
  if (std::string error = TakeText(HttpClient::InitialiseHttp()); !error.empty()) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 2;
  }
  Limit("reply over 4 GiB refused", ReplyOver4GiB);
  Limit("reply line of 100 MB", ReplyLineOf100MB);
  Limit("document of 10 million tags", DocumentOf10MillionTags);
  delete HttpClient::TerminateHttp();
  return failures == 0 ? 0 : 1;
}
