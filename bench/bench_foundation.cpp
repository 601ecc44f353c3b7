// The foundation beside its peers: UTF-8 conversions beside ICU, Thread start and stop beside
// std::thread, array appends beside std::vector, and the wake-up latency of WaitOnEvents beside a
// bare condition variable. A table at the end sets each figure beside its peer's, taking the best
// of the repetitions of each.

#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/Event.h>
#include <qorxmlu/foundation/SVArray.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/Thread.h>
#include <qorxmlu/foundation/VArray.h>

#include "InterleavedRuns.h"

#include <benchmark/benchmark.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace QOR;
using Clock = std::chrono::steady_clock;

constexpr std::size_t textBytes = 100u << 20;
constexpr int arrayAdds = 2000000;

// ---- Text ---------------------------------------------------------------------------------------

struct Corpus {
  std::string utf8;
  std::u16string utf16;
};

// Mostly ASCII: lines of markup with now and then an accented name. Mixed: words of seven scripts,
// from two to four bytes a character, between ASCII spaces and punctuation.
std::string MakeText(bool mixed) {
  static const char* const asciiWords[] = {"<Item Name=\"Order\" Version=\"12\">", "Quantity", "value",
                                           "</Item>", "status", "the", "reply", "Caf\xC3\xA9",
                                           "M\xC3\xBCller", "2024-05-17", "OK", "="};
  static const char* const mixedWords[] = {
      "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82",             // Russian
      "\xCE\xBA\xCE\xB1\xCE\xBB\xCE\xB7\xCE\xBC\xCE\xAD\xCF\x81\xCE\xB1", // Greek
      "\xE4\xBD\xA0\xE5\xA5\xBD\xE4\xB8\x96\xE7\x95\x8C",             // Chinese
      "\xE3\x81\x93\xE3\x82\x93\xE3\x81\xAB\xE3\x81\xA1\xE3\x81\xAF", // Japanese
      "Stra\xC3\x9F" "e", "gar\xC3\xA7on", "order", "value",
      "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D",                             // Hebrew
      "\xF0\x9F\x98\x80", "\xF0\x9F\x93\xA6",                         // emoji
      "\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4"};                        // Korean
  std::mt19937 random(42);
  std::string text;
  text.reserve(textBytes + 64);
  while (text.size() < textBytes) {
    if (mixed) {
      text += mixedWords[random() % std::size(mixedWords)];
      text += random() % 8 ? " " : ".\r\n";
    } else {
      text += asciiWords[random() % (random() % 16 ? 7 : std::size(asciiWords))];
      text += random() % 6 ? " " : "\r\n";
    }
  }
  return text;
}

const Corpus& GetCorpus(bool mixed) {
  static std::unique_ptr<Corpus> corpora[2];
  std::unique_ptr<Corpus>& corpus = corpora[mixed];
  if (!corpus) {
    corpus = std::make_unique<Corpus>();
    corpus->utf8 = MakeText(mixed);
    corpus->utf16.resize(corpus->utf8.size());
    corpus->utf16.resize(DecodeUtf8Units(corpus->utf8.data(), corpus->utf8.size(), corpus->utf16.data()));
    // Both converters must agree before either is timed.
    std::u16string icu(corpus->utf8.size(), u'\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(icu.data(), static_cast<int32_t>(icu.size()), &length, corpus->utf8.data(),
                  static_cast<int32_t>(corpus->utf8.size()), &status);
    icu.resize(static_cast<std::size_t>(length));
    if (U_FAILURE(status) || icu != corpus->utf16) {
      std::fprintf(stderr, "UTF-8 decoders disagree on the %s text\n", mixed ? "mixed" : "ASCII");
      std::exit(1);
    }
  }
  return *corpus;
}

void Utf8ToUtf16(benchmark::State& state, bool mixed, bool icu) {
  const Corpus& corpus = GetCorpus(mixed);
  std::u16string out(corpus.utf8.size(), u'\0');
  for (auto _ : state) {
    std::size_t units;
    if (icu) {
      int32_t length = 0;
      UErrorCode status = U_ZERO_ERROR;
      u_strFromUTF8(out.data(), static_cast<int32_t>(out.size()), &length, corpus.utf8.data(),
                    static_cast<int32_t>(corpus.utf8.size()), &status);
      units = static_cast<std::size_t>(length);
    } else {
      units = DecodeUtf8Units(corpus.utf8.data(), corpus.utf8.size(), out.data());
    }
    benchmark::DoNotOptimize(units);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpus.utf8.size()));
}

void Utf16ToUtf8(benchmark::State& state, bool mixed, bool icu) {
  const Corpus& corpus = GetCorpus(mixed);
  // The exact size, as EncodeToUTF8 gives it: the encoder never writes past what it produces.
  std::string out(corpus.utf8.size() + 1, '\0');
  for (auto _ : state) {
    std::size_t bytes;
    if (icu) {
      int32_t length = 0;
      UErrorCode status = U_ZERO_ERROR;
      u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &length, corpus.utf16.data(),
                  static_cast<int32_t>(corpus.utf16.size()), &status);
      bytes = static_cast<std::size_t>(length);
    } else {
      bytes = EncodeUtf8Units(corpus.utf16.data(), corpus.utf16.size(), out.data());
    }
    benchmark::DoNotOptimize(bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpus.utf8.size()));
}

// ---- Threads ------------------------------------------------------------------------------------

class EmptyThread : public Thread {
public:
  EmptyThread() : Thread("EmptyThread", nullptr, false) {}
  ~EmptyThread() override { BlockingStopRunning(); }

protected:
  ErrorInfo* ThreadBody(bool& finished) override {
    finished = true;
    return nullptr;
  }
};

void ThreadStartStop(benchmark::State& state) {
  EmptyThread thread;
  for (auto _ : state) {
    if (ErrorInfo* error = thread.StartRunning()) {
      state.SkipWithError("StartRunning failed");
      delete error;
      break;
    }
    thread.BlockingStopRunning();
  }
}

void StdThreadCreateJoin(benchmark::State& state) {
  for (auto _ : state) {
    std::thread thread([] {});
    thread.join();
  }
}

// ---- Arrays -------------------------------------------------------------------------------------

const String& Line() {
  static const String line(u"<Item Name=\"Order\" Version=\"12\">");
  return line;
}

// Times the adds only; building and destroying the container happen with the clock stopped.
template <class Container, class Add>
void TimeAdds(benchmark::State& state, Add add) {
  for (auto _ : state) {
    state.PauseTiming();
    auto container = std::make_unique<Container>();
    state.ResumeTiming();
    for (int i = 0; i < arrayAdds; ++i) add(*container, i);
    benchmark::DoNotOptimize(container.get());
    state.PauseTiming();
    container.reset();
    state.ResumeTiming();
  }
}

void SVArrayAdds(benchmark::State& state) {
  TimeAdds<SVArray<int>>(state, [](SVArray<int>& a, int i) {
    if (i == 0) a.SetCapacityIncrease(33);
    a.Add(i);
  });
}

void VectorIntPushBacks(benchmark::State& state) {
  TimeAdds<std::vector<int>>(state, [](std::vector<int>& v, int i) { v.push_back(i); });
}

void VArrayStringAdds(benchmark::State& state) {
  TimeAdds<VArray<String>>(state, [](VArray<String>& a, int) { a.Add(Line()); });
}

void VectorStringPushBacks(benchmark::State& state) {
  TimeAdds<std::vector<String>>(state, [](std::vector<String>& v, int) { v.push_back(Line()); });
}

// ---- Wake-up latency ----------------------------------------------------------------------------

constexpr int latencyRounds = 3000;

// A waiter sleeps; the main thread notes the time and wakes it; the waiter notes how long that
// took. Between rounds the main thread pauses, so that every wake finds the waiter asleep.
void ReportLatencies(benchmark::State& state, std::vector<double>& micros) {
  std::sort(micros.begin(), micros.end());
  state.counters["median_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

void WaitOnEventsLatency(benchmark::State& state) {
  for (auto _ : state) {
    Event go, ack;
    SVArray<Event*, Event*> goList, ackList;
    goList.Add(&go);
    ackList.Add(&ack);
    std::atomic<Clock::rep> setAt{0};
    std::vector<double> micros(latencyRounds);
    std::thread waiter([&] {
      for (double& sample : micros) {
        WaitOnEvents(goList, -1);
        auto woke = Clock::now().time_since_epoch().count();
        sample = std::chrono::duration<double, std::micro>(Clock::duration(woke - setAt.load())).count();
        go.Reset();
        ack.Set();
      }
    });
    for (int i = 0; i < latencyRounds; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      setAt = Clock::now().time_since_epoch().count();
      go.Set();
      WaitOnEvents(ackList, -1);
      ack.Reset();
    }
    waiter.join();
    ReportLatencies(state, micros);
  }
}

void ConditionVariableLatency(benchmark::State& state) {
  for (auto _ : state) {
    std::mutex lock;
    std::condition_variable goSignal, ackSignal;
    bool go = false, ack = false;
    std::atomic<Clock::rep> setAt{0};
    std::vector<double> micros(latencyRounds);
    std::thread waiter([&] {
      for (double& sample : micros) {
        std::unique_lock<std::mutex> hold(lock);
        goSignal.wait(hold, [&] { return go; });
        auto woke = Clock::now().time_since_epoch().count();
        sample = std::chrono::duration<double, std::micro>(Clock::duration(woke - setAt.load())).count();
        go = false;
        ack = true;
        ackSignal.notify_one();
      }
    });
    for (int i = 0; i < latencyRounds; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      std::unique_lock<std::mutex> hold(lock);
      setAt = Clock::now().time_since_epoch().count();
      go = true;
      goSignal.notify_one();
      ackSignal.wait(hold, [&] { return ack; });
      ack = false;
    }
    waiter.join();
    ReportLatencies(state, micros);
  }
}

// ---- Side by side -------------------------------------------------------------------------------

// Keeps the best repetition of each benchmark (the least real time; for the latencies, the
// least median) for the table at the end. Repetitions of all benchmarks are interleaved, so a
// pair's figures come from the same stretches of machine load.
class Collector : public benchmark::ConsoleReporter {
public:
  Collector() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      auto [kept, added] = results.try_emplace(run.run_name.function_name, run);
      if (!added && Better(run, kept->second)) kept->second = run;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, Run> results;

private:
  static bool Better(const Run& run, const Run& than) {
    auto median = run.counters.find("median_us");
    if (median != run.counters.end()) return median->second.value < than.counters.at("median_us").value;
    return run.GetAdjustedRealTime() < than.GetAdjustedRealTime();
  }
};

enum class Figure { MBPerSecond, Time, Counter };

struct Pair {
  const char* title;
  const char* ours;
  const char* peer;
  const char* peerName;
  Figure figure;
  const char* counter; // for Figure::Counter
  const char* goal;
};

double Value(const benchmark::BenchmarkReporter::Run& run, Figure figure, const char* counter) {
  switch (figure) {
  case Figure::MBPerSecond: return run.counters.at("bytes_per_second").value / 1e6;
  case Figure::Time: return run.GetAdjustedRealTime(); // in the run's own unit
  case Figure::Counter: return run.counters.at(counter).value;
  }
  return 0;
}

const char* UnitName(const benchmark::BenchmarkReporter::Run& run, Figure figure) {
  switch (figure) {
  case Figure::MBPerSecond: return "MB/s";
  case Figure::Time: return benchmark::GetTimeUnitString(run.time_unit);
  case Figure::Counter: return "us";
  }
  return "";
}

void PrintTable(const Collector& collector) {
  static const Pair pairs[] = {
      {"UTF-8 to UTF-16, mostly ASCII", "utf8_to_utf16/ascii/qorxmlu", "utf8_to_utf16/ascii/icu", "ICU",
       Figure::MBPerSecond, nullptr, "at least ICU"},
      {"UTF-8 to UTF-16, mixed", "utf8_to_utf16/mixed/qorxmlu", "utf8_to_utf16/mixed/icu", "ICU",
       Figure::MBPerSecond, nullptr, "at least ICU"},
      {"UTF-16 to UTF-8, mostly ASCII", "utf16_to_utf8/ascii/qorxmlu", "utf16_to_utf8/ascii/icu", "ICU",
       Figure::MBPerSecond, nullptr, "at least ICU"},
      {"UTF-16 to UTF-8, mixed", "utf16_to_utf8/mixed/qorxmlu", "utf16_to_utf8/mixed/icu", "ICU",
       Figure::MBPerSecond, nullptr, "at least ICU"},
      {"Thread start + stop, empty body", "thread/start_stop/qorxmlu", "thread/create_join/std_thread",
       "std::thread", Figure::Time, nullptr, "at most 1/4"},
      {"2,000,000 Adds, SVArray<int> step 33", "array/svarray_int_step33", "array/vector_int",
       "std::vector", Figure::Time, nullptr, "within 2x"},
      {"2,000,000 Adds, VArray<String> step 80", "array/varray_string_step80", "array/vector_string",
       "std::vector", Figure::Time, nullptr, "within 2x"},
      {"Wake-up latency, median", "wake/wait_on_events", "wake/condition_variable", "condvar",
       Figure::Counter, "median_us", "report"},
      {"Wake-up latency, 99th percentile", "wake/wait_on_events", "wake/condition_variable", "condvar",
       Figure::Counter, "p99_us", "report"},
  };
  std::printf("\n%-40s %12s %12s %-12s %8s  %s\n", "figure", "qorxmlu", "peer", "(peer)", "ratio", "goal");
  for (const Pair& pair : pairs) {
    auto ours = collector.results.find(pair.ours);
    auto peer = collector.results.find(pair.peer);
    if (ours == collector.results.end() || peer == collector.results.end()) continue;
    double a = Value(ours->second, pair.figure, pair.counter);
    double b = Value(peer->second, pair.figure, pair.counter);
    std::printf("%-40s %9.2f %-4s %9.2f %-4s %-8s %8.2f  %s\n", pair.title, a, UnitName(ours->second, pair.figure), b,
                UnitName(peer->second, pair.figure), pair.peerName, b != 0 ? a / b : 0.0, pair.goal);
  }
}

} // namespace

int main(int argc, char** argv) {
  for (bool mixed : {false, true}) {
    const char* text = mixed ? "mixed" : "ascii";
    for (bool icu : {false, true}) {
      const char* who = icu ? "icu" : "qorxmlu";
      benchmark::RegisterBenchmark((std::string("utf8_to_utf16/") + text + "/" + who).c_str(), Utf8ToUtf16,
                                   mixed, icu)
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark((std::string("utf16_to_utf8/") + text + "/" + who).c_str(), Utf16ToUtf8,
                                   mixed, icu)
          ->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::RegisterBenchmark("thread/start_stop/qorxmlu", ThreadStartStop)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("thread/create_join/std_thread", StdThreadCreateJoin)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("array/svarray_int_step33", SVArrayAdds)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("array/vector_int", VectorIntPushBacks)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("array/varray_string_step80", VArrayStringAdds)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("array/vector_string", VectorStringPushBacks)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("wake/wait_on_events", WaitOnEventsLatency)->Iterations(1)->UseRealTime();
  benchmark::RegisterBenchmark("wake/condition_variable", ConditionVariableLatency)->Iterations(1)->UseRealTime();

  // Five interleaved repetitions unless the command line says otherwise.
  bench::InterleavedRuns runs(argc, argv, 5);
  benchmark::Initialize(runs.Count(), runs.Args());
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  PrintTable(collector);
  benchmark::Shutdown();
  return 0;
}
