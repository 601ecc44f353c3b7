// XML documents beside pugixml and tinyxml2, on the same generated file, in one run.
//
// Without arguments: writes a document of QORXMLU_BENCH_MB megabytes (default 100) to the temp
// folder, measures reading, writing and copying it with each library, each in a process of its
// own so that the peak memory (getrusage) is that library's alone, in QORXMLU_BENCH_ROUNDS rounds
// (default 3) that take the libraries in turn, prints the table, and then runs the in-process
// micro benchmarks on a 4 MB document, interleaved (QORXMLU_BENCH_MICRO=0 leaves them out).
//   bench_xml --child <read|write|copy> <qorxmlu|pugixml|tinyxml2> <file>   one measurement
//   bench_xml --generate <file> <megabytes>                                  the document only
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/xml/XML.h>

#include "InterleavedRuns.h"
#include "XMLDocumentGenerator.h"

#include <benchmark/benchmark.h>
#include <pugixml.hpp>
#include <tinyxml2.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace QOR;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

long PeakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// ---- one measurement per process ---------------------------------------------------------

struct Measurement {
  double load = 0;    // seconds to read the file into a tree
  double loadCpu = 0; // processor seconds (user and system) of that read
  double op = 0;      // seconds of the operation after it (0 for read)
  double text = 0;    // write only: the whole document as text in memory (GetText, save to a string, print)
};

// Processor seconds of this process so far, user and system.
double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Times the read into m.load and m.loadCpu.
template <class Read>
void TimeLoad(Measurement& m, Read read) {
  const double cpu = CpuSeconds();
  const auto start = Clock::now();
  read();
  m.load = Seconds(start);
  m.loadCpu = CpuSeconds() - cpu;
}

Measurement RunOurs(const std::string& op, const std::string& file) {
  Measurement m;
  XML doc;
  std::unique_ptr<ErrorInfo> error;
  TimeLoad(m, [&] { error.reset(doc.ReadFile(String::FromUtf8(file))); });
  if (error) {
    std::fprintf(stderr, "qorxmlu: %s\n", error->Text().ToUtf8().c_str());
    std::exit(1);
  }
  if (op == "write") {
    auto start = Clock::now();
    {
      const String text = doc.GetText();
      m.text = Seconds(start);
      benchmark::DoNotOptimize(text.Len());
    }
    start = Clock::now();
    error.reset(doc.Write(String::FromUtf8(file + ".out")));
    m.op = Seconds(start);
  } else if (op == "copy") {
    const auto start = Clock::now();
    XML copy(doc);
    m.op = Seconds(start);
    benchmark::DoNotOptimize(copy.TopTag());
  }
  return m;
}

// pugixml's save to memory, as its own writer interface gives it.
struct StringWriter final : pugi::xml_writer {
  std::string text;
  void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
};

Measurement RunPugi(const std::string& op, const std::string& file) {
  Measurement m;
  pugi::xml_document doc;
  bool loaded = false;
  TimeLoad(m, [&] { loaded = doc.load_file(file.c_str()); });
  if (!loaded) std::exit(1);
  if (op == "write") {
    auto start = Clock::now();
    {
      StringWriter writer;
      doc.save(writer, "\t");
      m.text = Seconds(start);
      benchmark::DoNotOptimize(writer.text.size());
    }
    start = Clock::now();
    doc.save_file((file + ".out").c_str(), "\t");
    m.op = Seconds(start);
  } else if (op == "copy") {
    const auto start = Clock::now();
    pugi::xml_document copy;
    copy.reset(doc);
    m.op = Seconds(start);
    benchmark::DoNotOptimize(copy.first_child());
  }
  return m;
}

Measurement RunTiny(const std::string& op, const std::string& file) {
  Measurement m;
  tinyxml2::XMLDocument doc;
  tinyxml2::XMLError loaded = tinyxml2::XML_SUCCESS;
  TimeLoad(m, [&] { loaded = doc.LoadFile(file.c_str()); });
  if (loaded != tinyxml2::XML_SUCCESS) std::exit(1);
  if (op == "write") {
    auto start = Clock::now();
    {
      tinyxml2::XMLPrinter printer;
      doc.Print(&printer);
      m.text = Seconds(start);
      benchmark::DoNotOptimize(printer.CStrSize());
    }
    start = Clock::now();
    doc.SaveFile((file + ".out").c_str());
    m.op = Seconds(start);
  } else if (op == "copy") {
    const auto start = Clock::now();
    tinyxml2::XMLDocument copy;
    doc.DeepCopy(&copy);
    m.op = Seconds(start);
    benchmark::DoNotOptimize(copy.FirstChild());
  }
  return m;
}

int Child(const std::string& op, const std::string& library, const std::string& file) {
  Measurement m = library == "qorxmlu" ? RunOurs(op, file)
                  : library == "pugixml" ? RunPugi(op, file)
                                         : RunTiny(op, file);
  std::error_code ignored;
  std::filesystem::remove(file + ".out", ignored);
  std::printf("%.4f %.4f %.4f %.4f %ld\n", m.load, m.loadCpu, m.op, m.text, PeakKiB());
  return 0;
}

// ---- the comparison table -----------------------------------------------------------------

struct Result {
  Measurement m;
  double peakMiB = 0;
};

Result SpawnOnce(const std::string& self, const std::string& op, const std::string& library,
                 const std::string& file) {
  const std::string command = "'" + self + "' --child " + op + " " + library + " '" + file + "'";
  Result result;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    long kib = 0;
    if (std::fscanf(pipe, "%lf %lf %lf %lf %ld", &result.m.load, &result.m.loadCpu, &result.m.op, &result.m.text,
                    &kib) == 5)
      result.peakMiB = kib / 1024.0;
    pclose(pipe);
  }
  return result;
}

// The runs of one measurement, kept whole for the median and the spread of each figure.
struct Runs {
  std::vector<Result> all;

  void Add(const Result& r) { all.push_back(r); }

  template <class Figure>
  std::vector<double> Sorted(Figure figure) const {
    std::vector<double> values;
    for (const Result& r : all) values.push_back(figure(r));
    std::sort(values.begin(), values.end());
    return values;
  }
  template <class Figure>
  double Median(Figure figure) const {
    const std::vector<double> values = Sorted(figure);
    if (values.empty()) return 0;
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  }
};

double LoadAverage() {
  double load = 0;
  if (FILE* file = std::fopen("/proc/loadavg", "r")) {
    if (std::fscanf(file, "%lf", &load) != 1) load = 0;
    std::fclose(file);
  }
  return load;
}

void Compare(const std::string& self, std::uint64_t megabytes, int rounds) {
  const auto file = std::filesystem::temp_directory_path() /
                    ("qorxmlu-bench-" + std::to_string(megabytes) + "mb.xml");
  bench::DocumentShape shape;
  WriteBytes(file, bench::GenerateDocument(megabytes * 1000 * 1000, &shape));
  std::printf("Document: %.1f MB, %.2f M lines, %.2f M elements, %.2f M attributes, %llu tags under "
              "the top tag\n\n",
              shape.bytes / 1e6, shape.lines / 1e6, shape.elements / 1e6, shape.attributes / 1e6,
              static_cast<unsigned long long>(shape.records));

  // Round after round, each library in turn, so that a busy spell of the machine falls on all
  // of them alike.
  const char* libraries[] = {"qorxmlu", "pugixml", "tinyxml2"};
  const char* operations[] = {"read", "write", "copy"};
  Runs runs[3][3]; // [operation][library]
  const double loadBefore = LoadAverage();
  for (int round = 0; round < rounds; ++round) {
    for (int op = 0; op < 3; ++op) {
      for (int lib = 0; lib < 3; ++lib) runs[op][lib].Add(SpawnOnce(self, operations[op], libraries[lib], file.string()));
    }
  }
  const double loadAfter = LoadAverage();
  std::filesystem::remove(file);

  const Runs(&read)[3] = runs[0];
  const Runs(&write)[3] = runs[1];
  const Runs(&copy)[3] = runs[2];
  std::printf("%d rounds, each library in turn; median [lowest - highest] of the rounds; load average %.1f "
              "before, %.1f after\n",
              rounds, loadBefore, loadAfter);
  std::printf("%-34s %23s %23s %23s\n", "", libraries[0], libraries[1], libraries[2]);
  auto row = [](const char* label, const Runs (&r)[3], auto figure) {
    std::printf("%-34s", label);
    for (int i = 0; i < 3; ++i) {
      const std::vector<double> values = r[i].Sorted(figure);
      std::printf("   %7.3f [%6.3f-%6.3f]", r[i].Median(figure), values.front(), values.back());
    }
    std::printf("\n");
  };
  const auto load = [](const Result& r) { return r.m.load; };
  const auto loadCpu = [](const Result& r) { return r.m.loadCpu; };
  const auto peak = [](const Result& r) { return r.peakMiB; };
  const auto readWrite = [](const Result& r) { return r.m.load + r.m.op; };
  const auto text = [](const Result& r) { return r.m.text; };
  const auto op = [](const Result& r) { return r.m.op; };
  row("read: ReadFile / load (s)", read, load);
  row("  processor time, user+sys (s)", read, loadCpu);
  row("  peak memory (MiB)", read, peak);
  row("read + write to a file (s)", write, readWrite);
  row("  of which the write (s)", write, op);
  row("  peak memory (MiB)", write, peak);
  row("whole text in memory (s)", write, text);
  row("copy of the loaded tree (s)", copy, op);
  row("  peak memory, load + copy (MiB)", copy, peak);

  std::printf("\nRatios of the medians, qorxmlu / pugixml and qorxmlu / tinyxml2 (goal against pugixml):\n");
  auto ratio = [](const char* label, const Runs (&r)[3], auto figure, const char* goal) {
    const double ours = r[0].Median(figure);
    std::printf("  %-38s %5.2f   %5.2f   (%s)\n", label, ours / r[1].Median(figure), ours / r[2].Median(figure), goal);
  };
  ratio("read time", read, load, "<= 1.0, aim 0.75");
  ratio("read processor time", read, loadCpu, "<= 1.0, aim 0.75");
  ratio("read peak memory", read, peak, "<= 1.0");
  ratio("read + write", write, readWrite, "<= 1.0");
  ratio("GetText / save to a string / print", write, text, "<= 1.0");
  std::printf("  %-38s %5.2f           (< 1)\n\n", "qorxmlu copy / qorxmlu read", copy[0].Median(op) / read[0].Median(load));
}

// ---- in-process micro benchmarks on a small document --------------------------------------

const std::string& SmallDocument() {
  static const std::string text = bench::GenerateDocument(4 * 1000 * 1000);
  return text;
}

void BM_ReadText_qorxmlu(benchmark::State& state) {
  const String text = String::FromUtf8(SmallDocument());
  for (auto _ : state) {
    XML doc;
    std::unique_ptr<ErrorInfo> error(doc.ReadText(text));
    benchmark::DoNotOptimize(doc.TopTag());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * SmallDocument().size()));
}

void BM_Load_pugixml(benchmark::State& state) {
  for (auto _ : state) {
    pugi::xml_document doc;
    doc.load_buffer(SmallDocument().data(), SmallDocument().size());
    benchmark::DoNotOptimize(doc.first_child());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * SmallDocument().size()));
}

void BM_Parse_tinyxml2(benchmark::State& state) {
  for (auto _ : state) {
    tinyxml2::XMLDocument doc;
    doc.Parse(SmallDocument().data(), SmallDocument().size());
    benchmark::DoNotOptimize(doc.FirstChild());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * SmallDocument().size()));
}

void BM_GetText_qorxmlu(benchmark::State& state) {
  XML doc;
  delete doc.ReadText(String::FromUtf8(SmallDocument()));
  for (auto _ : state) benchmark::DoNotOptimize(doc.GetText().Len());
}

void BM_Save_pugixml(benchmark::State& state) {
  pugi::xml_document doc;
  doc.load_buffer(SmallDocument().data(), SmallDocument().size());
  for (auto _ : state) {
    std::ostringstream out;
    doc.save(out, "\t");
    benchmark::DoNotOptimize(out.tellp());
  }
}

void BM_Print_tinyxml2(benchmark::State& state) {
  tinyxml2::XMLDocument doc;
  doc.Parse(SmallDocument().data(), SmallDocument().size());
  for (auto _ : state) {
    tinyxml2::XMLPrinter printer;
    doc.Print(&printer);
    benchmark::DoNotOptimize(printer.CStrSize());
  }
}

void BM_Copy_qorxmlu(benchmark::State& state) {
  XML doc;
  delete doc.ReadText(String::FromUtf8(SmallDocument()));
  for (auto _ : state) {
    XML copy(doc);
    benchmark::DoNotOptimize(copy.TopTag());
  }
}

void BM_Copy_pugixml(benchmark::State& state) {
  pugi::xml_document doc;
  doc.load_buffer(SmallDocument().data(), SmallDocument().size());
  for (auto _ : state) {
    pugi::xml_document copy;
    copy.reset(doc);
    benchmark::DoNotOptimize(copy.first_child());
  }
}

void BM_Copy_tinyxml2(benchmark::State& state) {
  tinyxml2::XMLDocument doc;
  doc.Parse(SmallDocument().data(), SmallDocument().size());
  for (auto _ : state) {
    tinyxml2::XMLDocument copy;
    doc.DeepCopy(&copy);
    benchmark::DoNotOptimize(copy.FirstChild());
  }
}

BENCHMARK(BM_ReadText_qorxmlu)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Load_pugixml)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse_tinyxml2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetText_qorxmlu)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Save_pugixml)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Print_tinyxml2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_qorxmlu)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_pugixml)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_tinyxml2)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--child") == 0) return Child(argv[2], argv[3], argv[4]);
  if (argc == 4 && std::strcmp(argv[1], "--generate") == 0) {
    WriteBytes(argv[2], bench::GenerateDocument(std::strtoull(argv[3], nullptr, 10) * 1000 * 1000));
    return 0;
  }
  const char* megabytes = std::getenv("QORXMLU_BENCH_MB");
  const char* rounds = std::getenv("QORXMLU_BENCH_ROUNDS");
  Compare(std::filesystem::canonical("/proc/self/exe").string(),
          megabytes ? std::strtoull(megabytes, nullptr, 10) : 100, rounds ? std::atoi(rounds) : 3);

  if (const char* micro = std::getenv("QORXMLU_BENCH_MICRO"); micro && std::strcmp(micro, "0") == 0) return 0;
  QOR::bench::InterleavedRuns runs(argc, argv, 3);
  benchmark::Initialize(runs.Count(), runs.Args());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
