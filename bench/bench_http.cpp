// HttpClient against plain libcurl, on one loopback server in a child process (so that this
// process's processor time is the client's alone):
//   - 20,000 small form POSTs over keep-alive, in interleaved batches (HttpClient::Retrieve with
//     its watchdog thread per request, against a curl easy handle posting the same body), with
//     the processor time (user + sys, all threads) each side takes per request;
//   - a 1 GiB upload file, posted as a multipart form to a receiver that discards it (HttpClient,
//     against curl's mime API streaming the same file), three runs each, interleaved, with the
//     peak resident memory of each run above the memory before it.
#include <qorxmlu/http/HttpClient.h>

#include "support/LoopbackServer.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int smallRequests = 20000;
constexpr int batch = 1000;
constexpr std::size_t uploadBytes = std::size_t{1} << 30;
constexpr int uploadRounds = 3;
constexpr const char* boundary = "gc0p4Jq0M2Yt08jU534c0p";

// The loopback server, served by a child process.
struct ServerProcess {
  pid_t pid = -1;
  int keepAlive = -1; // the child serves until this pipe closes
  std::string hostPort;
  std::string HostPort() const { return hostPort; }
} serverProcess;
ServerProcess* server = nullptr;
std::string uploadPath;

std::string Url(const char* path) { return "http://" + server->HostPort() + path; }

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* reply) {
  static_cast<std::string*>(reply)->append(data, size * count);
  return size * count;
}

// Kilobytes of the process: the peak since the last reset, or the current resident set.
long StatusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + std::string(field).size(), nullptr, 10);
  return -1;
}

void ResetPeakMemory() { std::ofstream("/proc/self/clear_refs") << "5"; }

void AddSmallForm(QOR::HttpClient& client) {
  client.AddFormField(u"id", u"7");
  client.AddFormField(u"query", u"status");
}

// Processor time (user + sys) of the whole process so far, and its voluntary context switches.
struct Usage {
  double seconds = 0;
  long switches = 0;
};

Usage ProcessUsage() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_nvcsw};
}

struct Totals {
  double oursSeconds = 0, curlSeconds = 0;
  double oursCpuSeconds = 0, curlCpuSeconds = 0;
  long oursSwitches = 0, curlSwitches = 0;
  int oursRequests = 0, curlRequests = 0;
} totals;

// One upload run: its seconds and its peak resident memory above the start, in kB.
struct UploadRun {
  double seconds;
  long peakKb;
};
std::vector<UploadRun> oursUploads, curlUploads;

// Runs upload, which returns its seconds, and records it with its peak memory.
template <typename Upload>
bool MeasureUpload(benchmark::State& state, std::vector<UploadRun>& runs, Upload upload) {
  long before = StatusKb("VmRSS:");
  ResetPeakMemory();
  double seconds = upload();
  if (seconds < 0) return false;
  runs.push_back({seconds, StatusKb("VmHWM:") - before});
  state.counters["MB/s"] = uploadBytes / 1048576.0 / seconds;
  state.counters["peak MB"] = runs.back().peakKb / 1024.0;
  return true;
}

// A batch of small POSTs through HttpClient.
void SmallOurs(benchmark::State& state, QOR::HttpClient* client) {
  for (auto _ : state) {
    Usage before = ProcessUsage();
    auto start = Clock::now();
    for (int i = 0; i < batch; ++i) {
      AddSmallForm(*client);
      QOR::String reply;
      QOR::ErrorInfo* error = client->Retrieve(u"/small", reply);
      if (error) {
        state.SkipWithError(error->Text().ToUtf8().c_str());
        delete error;
        return;
      }
    }
    totals.oursSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    Usage after = ProcessUsage();
    totals.oursCpuSeconds += after.seconds - before.seconds;
    totals.oursSwitches += after.switches - before.switches;
    totals.oursRequests += batch;
  }
  state.counters["requests/s"] = benchmark::Counter(batch, benchmark::Counter::kIsRate);
}

// The same batch through a curl easy handle, which keeps its connection.
void SmallCurl(benchmark::State& state, CURL* curl, const std::string* body) {
  curl_slist* headers =
      curl_slist_append(nullptr, (std::string("Content-Type: multipart/form-data; boundary=") + boundary).c_str());
  std::string url = Url("/small");
  std::string reply;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
  for (auto _ : state) {
    Usage before = ProcessUsage();
    auto start = Clock::now();
    for (int i = 0; i < batch; ++i) {
      reply.clear();
      CURLcode result = curl_easy_perform(curl);
      if (result != CURLE_OK) {
        state.SkipWithError(curl_easy_strerror(result));
        break;
      }
    }
    totals.curlSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    Usage after = ProcessUsage();
    totals.curlCpuSeconds += after.seconds - before.seconds;
    totals.curlSwitches += after.switches - before.switches;
    totals.curlRequests += batch;
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers);
  state.counters["requests/s"] = benchmark::Counter(batch, benchmark::Counter::kIsRate);
}

void UploadOurs(benchmark::State& state) {
  QOR::HttpClient client(u"bench", QOR::String::FromUtf8(server->HostPort()), false, 10, 600);
  for (auto _ : state) {
    client.AddFormField(u"id", u"7");
    client.SetUploadFile(QOR::String::FromUtf8(uploadPath), u"userfile");
    const std::string bodySize = std::to_string(client.FormBodySize());
    MeasureUpload(state, oursUploads, [&] {
      auto start = Clock::now();
      QOR::String reply;
      QOR::ErrorInfo* error = client.Retrieve(u"/discard", reply);
      // The receiver answers with the count of the bytes it took.
      if (!error && reply.ToUtf8() != bodySize) error = QOR::MakeError(u"the receiver took " + reply);
      if (error) {
        state.SkipWithError(error->Text().ToUtf8().c_str());
        delete error;
        return -1.0;
      }
      return std::chrono::duration<double>(Clock::now() - start).count();
    });
  }
}

void UploadCurl(benchmark::State& state) {
  CURL* curl = curl_easy_init();
  std::string url = Url("/discard");
  std::string reply;
  for (auto _ : state) {
    curl_mime* form = curl_mime_init(curl);
    curl_mimepart* field = curl_mime_addpart(form);
    curl_mime_name(field, "id");
    curl_mime_data(field, "7", CURL_ZERO_TERMINATED);
    curl_mimepart* file = curl_mime_addpart(form);
    curl_mime_name(file, "userfile");
    curl_mime_filedata(file, uploadPath.c_str());
    curl_mime_type(file, "application/base64");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, form);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    MeasureUpload(state, curlUploads, [&] {
      auto start = Clock::now();
      CURLcode result = curl_easy_perform(curl);
      if (result != CURLE_OK) {
        state.SkipWithError(curl_easy_strerror(result));
        return -1.0;
      }
      return std::chrono::duration<double>(Clock::now() - start).count();
    });
    curl_mime_free(form);
  }
  curl_easy_cleanup(curl);
}

// Each run as MB/s and peak MB, then the median rate and the spread of the rates.
double PrintUploads(const char* name, std::vector<UploadRun> runs) {
  if (runs.empty()) return 0;
  std::printf("  %-29s", name);
  std::vector<double> rates;
  long peakKb = 0;
  for (const UploadRun& run : runs) {
    rates.push_back(uploadBytes / 1048576.0 / run.seconds);
    peakKb = std::max(peakKb, run.peakKb);
    std::printf(" %5.0f MB/s %4ld MB |", rates.back(), run.peakKb / 1024);
  }
  std::sort(rates.begin(), rates.end());
  double median = rates[rates.size() / 2];
  std::printf(" median %.0f MB/s (%.0f to %.0f), peak %ld MB\n", median, rates.front(), rates.back(), peakKb / 1024);
  return median;
}

void WriteUploadFile() {
  uploadPath = (std::filesystem::temp_directory_path() / "qorxmlu-bench-upload.bin").string();
  std::ofstream out(uploadPath, std::ios::binary);
  std::string block(1 << 20, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 31 + 7);
  for (std::size_t written = 0; written < uploadBytes; written += block.size()) out.write(block.data(), block.size());
  out.close();
  // On disk before the runs: the write-back of 1 GiB of fresh pages would otherwise slow down
  // whichever run comes first.
  int descriptor = open(uploadPath.c_str(), O_RDONLY);
  if (descriptor >= 0) {
    fsync(descriptor);
    close(descriptor);
  }
}

// Forks the server before this process has any thread of its own; false if it did not come up.
bool StartServer() {
  int port[2], keepAlive[2];
  if (pipe(port) != 0 || pipe(keepAlive) != 0) return false;
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    close(port[0]);
    close(keepAlive[1]);
    QOR::test::LoopbackServer loopback;
    loopback.Routes().Post(
        "/small", [](const httplib::Request&, httplib::Response& response) { response.set_content("ok", "text/plain"); });
    loopback.Start();
    int number = loopback.Port();
    (void)!write(port[1], &number, sizeof number);
    char unused;
    while (read(keepAlive[0], &unused, 1) != 0) {
    }
    loopback.Stop();
    _exit(0);
  }
  close(port[1]);
  close(keepAlive[0]);
  int number = 0;
  bool started = read(port[0], &number, sizeof number) == sizeof number;
  close(port[0]);
  serverProcess = {pid, keepAlive[1], "127.0.0.1:" + std::to_string(number)};
  server = &serverProcess;
  return started;
}

void StopServer() {
  close(serverProcess.keepAlive);
  waitpid(serverProcess.pid, nullptr, 0);
}

} // namespace

int main(int argc, char** argv) {
  if (!StartServer()) {
    std::fprintf(stderr, "bench_http: the loopback server did not start\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (QOR::ErrorInfo* error = QOR::HttpClient::InitialiseHttp()) {
    std::fprintf(stderr, "bench_http: %s\n", error->Text().ToUtf8().c_str());
    delete error;
    return 1;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  WriteUploadFile();

  {
    QOR::HttpClient client(u"bench", QOR::String::FromUtf8(server->HostPort()), false, 10, 60);
    AddSmallForm(client);
    const char* bytes = nullptr;
    std::size_t length = 0;
    delete client.GetRequestBuffer(QOR::String(u"gc0p4Jq0M2Yt08jU534c0p"), bytes, length);
    std::string body(bytes, length);
    delete[] bytes;
    CURL* curl = curl_easy_init();

    // Alternate the two so that both see the same share of the machine.
    for (int round = 0; round < smallRequests / batch; ++round) {
      benchmark::RegisterBenchmark("SmallPost/qorxmlu",
                                   [&client](benchmark::State& state) { SmallOurs(state, &client); })
          ->Iterations(1)
          ->UseRealTime();
      benchmark::RegisterBenchmark("SmallPost/libcurl",
                                   [curl, &body](benchmark::State& state) { SmallCurl(state, curl, &body); })
          ->Iterations(1)
          ->UseRealTime();
    }
    for (int round = 0; round < uploadRounds; ++round) {
      benchmark::RegisterBenchmark("Upload1GiB/qorxmlu", &UploadOurs)
          ->Iterations(1)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("Upload1GiB/libcurl", &UploadCurl)
          ->Iterations(1)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    curl_easy_cleanup(curl);
  }

  double ours = totals.oursRequests / totals.oursSeconds;
  double curl = totals.curlRequests / totals.curlSeconds;
  double oursCpu = 1e6 * totals.oursCpuSeconds / totals.oursRequests;
  double curlCpu = 1e6 * totals.curlCpuSeconds / totals.curlRequests;
  std::printf("\nSmall form POST, keep-alive, %d requests each (processor time: user + sys, all threads):\n",
              totals.oursRequests);
  std::printf("  qorxmlu HttpClient::Retrieve  %9.0f requests/s  %6.1f us processor  %5.2f switches per request\n",
              ours, oursCpu, static_cast<double>(totals.oursSwitches) / totals.oursRequests);
  std::printf("  libcurl easy loop             %9.0f requests/s  %6.1f us processor  %5.2f switches per request\n",
              curl, curlCpu, static_cast<double>(totals.curlSwitches) / totals.curlRequests);
  std::printf("  ratio                         %9.2fx (goal >= 1.0x)  %5.2fx (goal <= 1.25x)\n", ours / curl,
              oursCpu / curlCpu);
  std::printf("1 GiB upload file, multipart POST to a discarding receiver, %d runs each (rate, peak above the "
              "start):\n",
              uploadRounds);
  double oursRate = PrintUploads("qorxmlu HttpClient::Retrieve", oursUploads);
  double curlRate = PrintUploads("libcurl mime, streamed", curlUploads);
  std::printf("  ratio of the medians          %9.2fx (goal >= 0.9x; peak goal <= 64 MB)\n", oursRate / curlRate);

  std::filesystem::remove(uploadPath);
  StopServer();
  curl_global_cleanup();
  delete QOR::HttpClient::TerminateHttp();
  return 0;
}
