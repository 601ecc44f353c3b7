// Soak: many queries through one SoapQueue against a loopback service that misbehaves now and
// then, while another thread cancels whatever query is running at random moments.
//
//   query_soak [queries] [callers]
//
// Passes when every caller's every query returned exactly once, each successful reply belongs to
// its own query, and nothing hung. The service runs in a child process, so the resident memory
// printed at the start, after the first 1% and at the end is the client side's alone.
#include <qorxmlu/http/HttpClient.h>
#include <qorxmlu/query/SoapQueue.h>
#include <qorxmlu/xml/XMLTag.h>

#include "support/RawServer.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace QOR;
using namespace std::chrono_literals;

long ResidentKiB() {
  long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The value of the form field "n" in a multipart body.
std::string FieldN(const std::string& body) {
  const std::string marker = "name=\"n\"";
  std::size_t at = body.find(marker);
  if (at == std::string::npos) return "";
  std::size_t start = body.find("\r\n\r\n", at);
  if (start == std::string::npos) return "";
  start += 4;
  return body.substr(start, body.find("\r\n--", start) - start);
}

std::string Document(const std::string& n, int status) {
  return "<?xml version=\"1.0\"?>\r\n<Reply>\r\n<Success>" + std::to_string(status) + "</Success>\r\n<Echo>" + n +
         "</Echo>\r\n</Reply>\r\n";
}

// One connection of the service: 95% good answers (2% of them late), 1% each of a reset before
// the answer, a close without one, a line that is no HTTP, a reset halfway through the body, and
// a reply with the service's error status.
void Serve(test::RawConnection& connection) {
  std::mt19937 random(static_cast<unsigned>(connection.Number()) * 7919u);
  test::RawConnection::Head head;
  std::string body;
  while (connection.ReadHead(head) && connection.ReadBody(head.contentLength, &body) == head.contentLength) {
    const std::string n = FieldN(body);
    const int roll = static_cast<int>(random() % 100);
    if (roll == 0) return connection.Reset();
    if (roll == 1) return connection.Close();
    if (roll == 2) {
      connection.Send("220 service ready\r\n");
      return connection.Close();
    }
    if (roll == 3) {
      std::string reply = Document(n, 0);
      connection.Send(test::RawServer::ResponseHead(200, "OK", reply.size()) + reply.substr(0, reply.size() / 2));
      connection.Hold(5ms);
      return connection.Reset();
    }
    if (roll == 5 || roll == 6) connection.Hold(10ms);
    if (!connection.Send(test::RawServer::Response(200, "OK", Document(n, roll == 4 ? 3 : 0)))) return;
  }
}

// Runs the service until the parent closes the pipe; writes the port into it first.
[[noreturn]] void RunService(int portPipe, int lifePipe) {
  {
    test::RawServer server(Serve);
    int port = server.Port();
    if (write(portPipe, &port, sizeof port) != sizeof port) _exit(2);
    char unused;
    while (read(lifePipe, &unused, 1) > 0) {
    }
  }
  _exit(0);
}

struct Tally {
  std::mutex lock;
  std::map<std::string, long> outcomes;
  long wrongReplies = 0;

  void Add(const std::string& text, bool wrongReply) {
    std::lock_guard<std::mutex> hold(lock);
    ++outcomes[text.empty() ? "success" : text];
    if (wrongReply) ++wrongReplies;
  }
};

// The first text of the outcome; for a success, whether the reply carries the query's own number.
std::string Judge(ErrorInfo* error, SimpleSoap& soap, long n, bool& wrongReply) {
  wrongReply = false;
  std::string text = error ? error->Text().ToUtf8() : "";
  delete error;
  if (text.empty()) {
    XMLTag* echo = soap.TopTag() ? soap.TopTag()->FindNestedTag(u"Echo") : nullptr;
    wrongReply = !echo || echo->GetValue().ToUtf8() != std::to_string(n);
  }
  return text;
}

} // namespace

int main(int argc, char** argv) {
  const long queries = argc > 1 ? std::atol(argv[1]) : 100000;
  const int callers = argc > 2 ? std::atoi(argv[2]) : 4;

  int portPipe[2], lifePipe[2];
  if (pipe(portPipe) != 0 || pipe(lifePipe) != 0) return 2;
  // The child starts before any thread of this process exists.
  pid_t child = fork();
  if (child == 0) {
    close(lifePipe[1]);
    RunService(portPipe[1], lifePipe[0]);
  }
  close(lifePipe[0]);
  int port = 0;
  if (read(portPipe[0], &port, sizeof port) != sizeof port) return 2;

  const long startKiB = ResidentKiB();
  if (ErrorInfo* error = HttpClient::InitialiseHttp()) {
    std::fprintf(stderr, "%s\n", error->Text().ToUtf8().c_str());
    delete error;
    return 2;
  }
  int exitCode = 0;
  long warmKiB = 0, endKiB = 0, cancels = 0;
  Tally tally;
  std::vector<std::atomic<int>> returns(static_cast<std::size_t>(queries));
  auto started = std::chrono::steady_clock::now();
  {
    HttpClient client(u"qorxmlu soak", String::FromUtf8("127.0.0.1:" + std::to_string(port)), false, 5, 10);
    SoapQueue queue;
    delete queue.StartRunning(&client);

    std::atomic<long> next{0}, done{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < callers; ++c) {
      threads.emplace_back([&] {
        for (long n; (n = next++) < queries;) {
          auto* soap = new SimpleSoap(u"/q", static_cast<unsigned>(n), u"");
          soap->AddParameter(u"n", String::FromUtf8(std::to_string(n)));
          SafeItem<SimpleSoap> item(soap);
          ErrorInfo* outcome = queue.AddBlockingSoap(item);
          ++returns[static_cast<std::size_t>(n)];
          bool wrongReply = false;
          std::string text = Judge(outcome, *soap, n, wrongReply);
          tally.Add(text, wrongReply);
          ++done;
        }
      });
    }
    std::atomic<bool> finished{false};
    std::thread canceller([&] {
      std::mt19937 random(12345);
      while (!finished) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        queue.CancelCallbackRequest();
        ++cancels;
      }
    });

    // No hang: the count of answered queries must move at least once a minute.
    long seen = -1;
    auto lastMove = std::chrono::steady_clock::now();
    while (done < queries) {
      std::this_thread::sleep_for(100ms);
      if (warmKiB == 0 && done >= queries / 100) warmKiB = ResidentKiB();
      if (done != seen) {
        seen = done;
        lastMove = std::chrono::steady_clock::now();
      } else if (std::chrono::steady_clock::now() - lastMove > 60s) {
        std::fprintf(stderr, "soak: no query answered for 60 s at %ld of %ld\n", seen, queries);
        std::fflush(stderr);
        std::abort();
      }
    }
    for (auto& thread : threads) thread.join();
    finished = true;
    canceller.join();
    delete queue.StopRunning();
    endKiB = ResidentKiB();
  }
  delete HttpClient::TerminateHttp();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  long notOnce = 0;
  for (auto& count : returns)
    if (count != 1) ++notOnce;
  std::printf("soak: %ld queries by %d callers in %.1f s (%.0f/s), %ld cancel calls\n", queries, callers, seconds,
              static_cast<double>(queries) / seconds, cancels);
  for (const auto& [text, count] : tally.outcomes) std::printf("  %7ld  %s\n", count, text.c_str());
  std::printf("soak: callers that did not return exactly once: %ld; successes with another query's reply: %ld\n",
              notOnce, tally.wrongReplies);
  std::printf("soak: resident memory %ld KiB at start, %ld KiB after 1%%, %ld KiB at the end\n", startKiB, warmKiB,
              endKiB);
  if (notOnce != 0 || tally.wrongReplies != 0) exitCode = 1;

  close(lifePipe[1]);
  int status = 0;
  waitpid(child, &status, 0);
  return exitCode;
}
