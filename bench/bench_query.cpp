// Queries and tracing beside their peers, in the same run:
//   - 10,000 queries through SoapQueue::AddBlockingSoap against the same RunQuery calls made
//     directly on one thread, on the fake web service of the tests (loopback, keep-alive);
//   - trace lines per second from 1 and from 4 threads, against spdlog's basic file sink with a
//     flush after every line (the same text, the same line end, one file).
#include <qorxmlu/http/HttpClient.h>
#include <qorxmlu/query/SoapQueue.h>
#include <qorxmlu/trace/SafeTrace.h>

#include "SoapService.h"

#include <benchmark/benchmark.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int queries = 10000;
constexpr int queryBatch = 250;
constexpr int traceLines = 40000;
constexpr int traceBatch = 4000;
const char* const traceText = "Bench::Line: a line of ordinary trace text, 60 bytes or so";

// The whole of a measurement, and its best batch: on a shared machine the best batch is the
// figure least disturbed by others.
struct Rate {
  double seconds = 0;
  long count = 0;
  double best = 0;
  double last = 0;
  void Add(double batchSeconds, long batchCount) {
    seconds += batchSeconds;
    count += batchCount;
    last = batchCount / batchSeconds;
    best = std::max(best, last);
  }
  double PerSecond() const { return count / seconds; }
};

struct Totals {
  Rate direct, queued;
  std::vector<double> roundRatios; // queued / direct, batch by batch
  Rate ours[2], spd[2]; // index 0: one thread, 1: four threads
} totals;

std::string tracePath;
std::string spdlogPath;

QOR::SafeItem<QOR::SimpleSoap> MakeQuery() {
  QOR::SafeItem<QOR::SimpleSoap> soap(new QOR::SimpleSoap(u"order", 0, u""));
  soap.Get()->AddParameter(u"caller", u"bench");
  soap.Get()->AddParameter(u"id", u"7");
  return soap;
}

bool Failed(benchmark::State& state, QOR::ErrorInfo* error) {
  if (!error) return false;
  state.SkipWithError(error->Text().ToUtf8().c_str());
  delete error;
  return true;
}

void Direct(benchmark::State& state, QOR::HttpClient* client) {
  auto soap = MakeQuery();
  for (auto _ : state) {
    auto start = Clock::now();
    for (int i = 0; i < queryBatch; ++i)
      if (Failed(state, soap.Get()->RunQuery(client))) return;
    totals.direct.Add(std::chrono::duration<double>(Clock::now() - start).count(), queryBatch);
  }
  state.counters["queries/s"] = benchmark::Counter(queryBatch, benchmark::Counter::kIsRate);
}

void Queued(benchmark::State& state, QOR::SoapQueue* queue) {
  auto soap = MakeQuery();
  for (auto _ : state) {
    auto start = Clock::now();
    for (int i = 0; i < queryBatch; ++i)
      if (Failed(state, queue->AddBlockingSoap(soap))) return;
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    totals.queued.Add(seconds, queryBatch);
    // The direct batch just before ran under the same load as this one.
    totals.roundRatios.push_back(queryBatch / seconds / totals.direct.last);
  }
  state.counters["queries/s"] = benchmark::Counter(queryBatch, benchmark::Counter::kIsRate);
}

// Runs body(lines) on `threads` threads sharing traceBatch lines, and adds the time to rate.
template <class Body>
void TraceRun(benchmark::State& state, int threads, Rate& rate, Body body) {
  for (auto _ : state) {
    auto start = Clock::now();
    std::vector<std::thread> tracers;
    for (int t = 0; t < threads; ++t) tracers.emplace_back(body, traceBatch / threads);
    for (auto& tracer : tracers) tracer.join();
    rate.Add(std::chrono::duration<double>(Clock::now() - start).count(), traceBatch);
  }
  state.counters["lines/s"] = benchmark::Counter(traceBatch, benchmark::Counter::kIsRate);
}

void TraceOurs(benchmark::State& state) {
  int threads = static_cast<int>(state.range(0));
  TraceRun(state, threads, totals.ours[threads > 1], [](int lines) {
    static const QOR::SafeTrace tracer("Bench");
    QOR::SafeTrace::FuncTrace trace("Line", tracer);
    QOR::String text = QOR::String::FromUtf8(traceText + 13);
    for (int i = 0; i < lines; ++i) trace.Trace(text);
  });
}

void TraceSpdlog(benchmark::State& state, spdlog::logger* logger) {
  int threads = static_cast<int>(state.range(0));
  TraceRun(state, threads, totals.spd[threads > 1], [logger](int lines) {
    logger->info("Entering Bench::Line");
    for (int i = 0; i < lines; ++i) logger->info(traceText);
    logger->info("Leaving Bench::Line");
  });
}

void Line(const char* what, const Rate& rate, const char* unit) {
  std::printf("  %-32s %9.0f %s (%.2f us each), best batch %9.0f\n", what, rate.PerSecond(), unit,
              1e6 / rate.PerSecond(), rate.best);
}

void Ratio(const Rate& ours, const Rate& peer, const char* goal) {
  std::printf("  %-32s %9.2fx, best batches %.2fx%s\n", "ratio", ours.PerSecond() / peer.PerSecond(),
              ours.best / peer.best, goal);
}

void Report() {
  std::printf("\nQueries on loopback, keep-alive, %ld each:\n", totals.direct.count);
  Line("RunQuery directly, one thread", totals.direct, "queries/s");
  Line("SoapQueue::AddBlockingSoap", totals.queued, "queries/s");
  Ratio(totals.queued, totals.direct, "");
  std::vector<double> ratios = totals.roundRatios;
  std::sort(ratios.begin(), ratios.end());
  std::printf("  %-32s %9.2fx (goal >= 0.9x)\n", "median of paired batches", ratios[ratios.size() / 2]);
  for (int i = 0; i < 2; ++i) {
    std::printf("Trace lines from %d thread%s, %ld each:\n", i ? 4 : 1, i ? "s" : "", totals.ours[i].count);
    Line("SafeTrace (open, write, close)", totals.ours[i], "lines/s");
    Line("spdlog basic file sink, flushed", totals.spd[i], "lines/s");
    Ratio(totals.ours[i], totals.spd[i], "");
  }
}

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (QOR::ErrorInfo* error = QOR::HttpClient::InitialiseHttp()) {
    std::fprintf(stderr, "bench_query: %s\n", error->Text().ToUtf8().c_str());
    delete error;
    return 1;
  }
  auto service = QOR::test::StartServers();
  tracePath = (std::filesystem::temp_directory_path() / "qorxmlu-bench-trace.txt").string();
  QOR::SafeTrace::SetTracePath(QOR::String::FromUtf8(tracePath));
  spdlogPath = tracePath + ".spdlog";
  auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(spdlogPath, true);
  auto logger = std::make_shared<spdlog::logger>("bench", sink);
  logger->set_formatter(std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::local, "\r\n"));
  logger->flush_on(spdlog::level::trace);

  {
    QOR::String server = QOR::String::FromUtf8(service->Addresses()["soap"]);
    QOR::HttpClient directClient(u"bench", server, false, 10, 60);
    QOR::HttpClient queueClient(u"bench", server, false, 10, 60);
    directClient.AddUrlPrefix(u"/");
    queueClient.AddUrlPrefix(u"/");
    QOR::SoapQueue queue;
    delete queue.StartRunning(&queueClient);

    // Alternate the two so that both see the same share of the machine.
    for (int round = 0; round < queries / queryBatch; ++round) {
      benchmark::RegisterBenchmark("Query/direct", [&](benchmark::State& state) { Direct(state, &directClient); })
          ->Iterations(1)->UseRealTime();
      benchmark::RegisterBenchmark("Query/queued", [&](benchmark::State& state) { Queued(state, &queue); })
          ->Iterations(1)->UseRealTime();
    }
    for (int round = 0; round < traceLines / traceBatch; ++round) {
      for (int threads : {1, 4}) {
        benchmark::RegisterBenchmark("Trace/qorxmlu", &TraceOurs)->Arg(threads)->Iterations(1)->UseRealTime();
        benchmark::RegisterBenchmark("Trace/spdlog", [&](benchmark::State& state) { TraceSpdlog(state, logger.get()); })
            ->Arg(threads)->Iterations(1)->UseRealTime();
      }
    }
    benchmark::RunSpecifiedBenchmarks();
    delete queue.StopRunning();
  }
  Report();

  logger.reset();
  sink.reset();
  std::filesystem::remove(tracePath);
  std::filesystem::remove(spdlogPath);
  service.reset();
  delete QOR::HttpClient::TerminateHttp();
  return 0;
}
