// libqorinet beside a plain libcurl easy-handle loop, same loopback server, same run:
//   - 20,000 small POSTs (300 bytes) in a row on a kept-alive connection;
//   - a 200 MB upload from memory and a 200 MB download into memory, with the peak memory
//     above the body (the high-water mark of this process, servers included).
// libqorinet is driven the way the HTTP engine drives WinInet: pending calls, one status
// callback, a wait on an event per step, 100 KiB chunks both ways.
#include "support/LoopbackServer.h"

#include <qorinet/wininet.h>

#include "InterleavedRuns.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <vector>
#include <mutex>
#include <string>
#include <thread>

namespace {

using QOR::test::LoopbackServer;

constexpr int smallPosts = 20000;
constexpr std::size_t bigBody = 200u * 1024 * 1024;
constexpr DWORD chunk = 102400;
// How long a step watches for its completion before it sleeps, as the engine's event waits do.
constexpr std::chrono::microseconds stepSpin(50);
const char contentType[] = "Content-Type: multipart/form-data; boundary=gc0p4Jq0M2Yt08jU534c0p";

LoopbackServer& Server() {
  static LoopbackServer* server = [] {
    auto* started = new LoopbackServer();
    started->Start();
    return started;
  }();
  return *server;
}

// ---- memory ----
// The high-water mark of the whole process, test server included: reset before each transfer,
// read after it, less the resident size before the body was allocated.

long StatusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
  }
  return 0;
}

// Lowers the high-water mark to the present size.
void ResetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }
double PeakAboveMb(long baselineKb) { return (StatusKb("VmHWM:") - baselineKb) / 1024.0; }

// ---- libqorinet, driven like the engine ----

// Watches `flag` for at most `limit`, yielding between looks; true once it is set.
bool SpinFor(const std::atomic<bool>& flag, std::chrono::microseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (flag.load(std::memory_order_acquire)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::yield();
  }
}

class EngineClient {
public:
  EngineClient() {
    root = InternetOpenW(u"bench", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, INTERNET_FLAG_ASYNC);
    InternetSetStatusCallbackW(root, &EngineClient::Callback);
    std::string server = Server().HostPort();
    std::u16string name(server.begin(), server.end());
    connection = InternetConnectW(root, name.c_str(), 80, u"", u"", INTERNET_SERVICE_HTTP, 0, Context());
  }
  ~EngineClient() {
    InternetCloseHandle(connection);
    InternetSetStatusCallbackW(root, nullptr);
    InternetCloseHandle(root);
  }

  // One POST; the reply goes to `reply` (grown like the engine's buffer) or, when `into` is
  // given, into that memory. False on any failure.
  bool Post(const char* object, const char* body, std::size_t size, std::string* reply, char* into = nullptr) {
    static const char* accept[] = {"*/*", nullptr};
    request = HttpOpenRequestA(connection, "POST", object, nullptr, nullptr, accept, 0x84400000, Context());
    HttpAddRequestHeadersW(request, u"Content-Type: multipart/form-data; boundary=gc0p4Jq0M2Yt08jU534c0p",
                           static_cast<DWORD>(-1), HTTP_ADDREQ_FLAG_REPLACE);
    INTERNET_BUFFERSW announce{};
    announce.dwStructSize = sizeof announce;
    announce.dwBufferTotal = static_cast<DWORD>(size);
    bool ok = Step(HttpSendRequestExW(request, &announce, nullptr, HSR_INITIATE, Context()));
    for (std::size_t done = 0; ok && done < size;) {
      DWORD written = 0;
      ok = Step(InternetWriteFile(request, body + done, static_cast<DWORD>(std::min<std::size_t>(chunk, size - done)),
                                  &written));
      done += written;
    }
    ok = Step(HttpEndRequestW(request, nullptr, 0, Context())) && ok;
    std::size_t total = 0;
    if (reply) reply->resize(chunk);
    while (ok) {
      INTERNET_BUFFERSA block{};
      block.dwStructSize = sizeof block;
      block.lpvBuffer = into ? into + total : reply->data() + total;
      block.dwBufferLength = into ? chunk : static_cast<DWORD>(reply->size() - total);
      ok = Step(InternetReadFileExA(request, &block, IRF_ASYNC, Context()));
      if (!ok || block.dwBufferLength == 0) break;
      total += block.dwBufferLength;
      if (reply && total == reply->size()) reply->resize(reply->size() + chunk);
    }
    if (reply) reply->resize(total);
    Close();
    return ok;
  }

private:
  DWORD_PTR Context() { return reinterpret_cast<DWORD_PTR>(this); }

  static void Callback(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID info, DWORD) {
    auto* self = reinterpret_cast<EngineClient*>(context);
    if (status == INTERNET_STATUS_REQUEST_COMPLETE) {
      self->error = static_cast<INTERNET_ASYNC_RESULT*>(info)->dwResult ? 0 : 1; // published by the store
      std::lock_guard<std::mutex> guard(self->lock);
      self->completed.store(true, std::memory_order_release);
      self->changed.notify_one();
    } else if (status == INTERNET_STATUS_HANDLE_CLOSING && handle == self->closing) {
      std::lock_guard<std::mutex> guard(self->lock);
      self->closed.store(true, std::memory_order_release);
      self->changed.notify_one();
    }
  }

  // The pending pattern: done at once, or wait for REQUEST_COMPLETE.
  bool Step(BOOL result) {
    if (result) return true;
    if (GetLastError() != ERROR_IO_PENDING) return false;
    Await(completed);
    completed.store(false, std::memory_order_relaxed);
    return error == 0;
  }

  void Close() {
    {
      std::lock_guard<std::mutex> guard(lock);
      closing = request;
      closed.store(false, std::memory_order_relaxed);
    }
    InternetCloseHandle(request);
    Await(closed);
  }

  void Await(const std::atomic<bool>& flag) {
    if (SpinFor(flag, stepSpin)) return;
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, [&flag] { return flag.load(std::memory_order_relaxed); });
  }

  HINTERNET root = nullptr;
  HINTERNET connection = nullptr;
  HINTERNET request = nullptr;
  std::mutex lock;
  std::condition_variable changed;
  std::atomic<bool> completed{false};
  std::atomic<bool> closed{false};
  DWORD error = 0;
  HINTERNET closing = nullptr;
};

// ---- libcurl, one easy handle reused ----

struct Source {
  const char* data;
  std::size_t size;
  std::size_t done = 0;
};
struct Sink {
  std::string* reply;
  char* into;
  std::size_t total = 0;
};

std::size_t ReadSource(char* buffer, std::size_t size, std::size_t count, void* user) {
  auto* source = static_cast<Source*>(user);
  std::size_t taken = std::min(size * count, source->size - source->done);
  std::memcpy(buffer, source->data + source->done, taken);
  source->done += taken;
  return taken;
}

std::size_t WriteSink(char* data, std::size_t size, std::size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  if (sink->into) {
    std::memcpy(sink->into + sink->total, data, size * count);
  } else {
    sink->reply->append(data, size * count);
  }
  sink->total += size * count;
  return size * count;
}

class CurlClient {
public:
  CurlClient() : easy(curl_easy_init()) {
    headers = curl_slist_append(headers, contentType);
    headers = curl_slist_append(headers, "Expect:");
  }
  ~CurlClient() {
    curl_slist_free_all(headers);
    curl_easy_cleanup(easy);
  }
  bool Post(const char* object, const char* body, std::size_t size, std::string* reply, char* into = nullptr) {
    std::string url = "http://" + Server().HostPort() + object;
    Source source{body, size};
    Sink sink{reply, into};
    if (reply) reply->clear();
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &ReadSource);
    curl_easy_setopt(easy, CURLOPT_READDATA, &source);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &WriteSink);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &sink);
    return curl_easy_perform(easy) == CURLE_OK;
  }

private:
  CURL* easy;
  curl_slist* headers = nullptr;
};

// ---- the benchmarks ----

template <class Client> void SmallPosts(benchmark::State& state) {
  Client client;
  std::string body(300, 'p');
  std::string reply;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < smallPosts; ++i) {
      if (!client.Post("/echo", body.data(), body.size(), &reply) || reply.size() != body.size()) {
        state.SkipWithError("request failed");
        return;
      }
    }
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(static_cast<int64_t>(smallPosts) * state.iterations());
}

// One 200 MB transfer; `upload` sends the body, otherwise it comes back into memory.
template <class Client> void Big(benchmark::State& state, bool upload) {
  long baseline = StatusKb("VmRSS:");
  std::string body(bigBody + chunk, upload ? 'u' : '\0'); // the body in memory, either way
  Client client;
  std::string reply;
  std::string object = upload ? "/discard" : "/bytes/" + std::to_string(bigBody);
  for (auto _ : state) {
    ResetPeak();
    auto start = std::chrono::steady_clock::now();
    bool ok = upload ? client.Post(object.c_str(), body.data(), bigBody, &reply) && reply == std::to_string(bigBody)
                     : client.Post(object.c_str(), "", 0, nullptr, body.data());
    if (!ok) {
      state.SkipWithError("transfer failed");
      return;
    }
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    state.counters["peak_MB_over_body"] = PeakAboveMb(baseline) - bigBody / 1048576.0;
  }
  state.SetBytesProcessed(static_cast<int64_t>(bigBody) * state.iterations());
}

// Keeps the best repetition of each benchmark (its real time) and the worst peak memory.
class Collector : public benchmark::ConsoleReporter {
public:
  Collector() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.run_name.function_name;
      auto [kept, added] = best.try_emplace(name, run);
      if (!added && run.GetAdjustedRealTime() < kept->second.GetAdjustedRealTime()) kept->second = run;
      auto peak = run.counters.find("peak_MB_over_body");
      if (peak != run.counters.end()) peaks[name] = std::max(peaks[name], peak->second.value);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, Run> best;
  std::map<std::string, double> peaks;
};

void PrintTable(Collector& collector) {
  struct Row {
    const char* title;
    const char* name;
    const char* counter;
    const char* unit;
    const char* goal;
  };
  static const Row rows[] = {
      {"20,000 small POSTs, keep-alive", "posts", "items_per_second", "req/s", "at least 0.9x"},
      {"200 MB upload from memory", "upload", "bytes_per_second", "MB/s", "at least 0.95x"},
      {"200 MB download into memory", "download", "bytes_per_second", "MB/s", "at least 0.95x"},
  };
  std::printf("\n%-34s %14s %14s %8s  %s\n", "figure", "libqorinet", "libcurl", "ratio", "goal");
  for (const Row& row : rows) {
    auto ours = collector.best.find(std::string(row.name) + "/libqorinet");
    auto peer = collector.best.find(std::string(row.name) + "/libcurl");
    if (ours == collector.best.end() || peer == collector.best.end()) continue;
    double scale = std::string(row.unit) == "MB/s" ? 1e-6 : 1.0;
    double a = ours->second.counters.at(row.counter).value * scale;
    double b = peer->second.counters.at(row.counter).value * scale;
    std::printf("%-34s %8.1f %-5s %8.1f %-5s %8.2f  %s\n", row.title, a, row.unit, b, row.unit, a / b, row.goal);
  }
  for (const char* name : {"upload", "download"}) {
    std::string ours = std::string(name) + "/libqorinet";
    std::string peer = std::string(name) + "/libcurl";
    if (!collector.peaks.count(ours) || !collector.peaks.count(peer)) continue;
    std::printf("%-34s %8.1f MB    %8.1f MB    %8s  %s\n", (std::string("peak memory above body, ") + name).c_str(),
                collector.peaks[ours], collector.peaks[peer], "", "at most 32 MB");
  }
}

} // namespace

int main(int argc, char** argv) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Server();
  benchmark::RegisterBenchmark("posts/libqorinet", SmallPosts<EngineClient>)->Iterations(1)->UseManualTime();
  benchmark::RegisterBenchmark("posts/libcurl", SmallPosts<CurlClient>)->Iterations(1)->UseManualTime();
  for (bool upload : {true, false}) {
    std::string what = upload ? "upload" : "download";
    benchmark::RegisterBenchmark((what + "/libqorinet").c_str(), Big<EngineClient>, upload)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((what + "/libcurl").c_str(), Big<CurlClient>, upload)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }

  // Three interleaved repetitions unless the command line says otherwise: the machine is shared,
  // and the best of each is the fairer figure.
  QOR::bench::InterleavedRuns runs(argc, argv, 3);
  benchmark::Initialize(runs.Count(), runs.Args());
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  PrintTable(collector);
  benchmark::Shutdown();
  return 0;
}
