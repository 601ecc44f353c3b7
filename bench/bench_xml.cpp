// XML documents beside pugixml and tinyxml2, on the same generated file, in one run.
//
// Without arguments: writes a document of QORXMLU_BENCH_MB megabytes (default 100) to the temp
// folder, measures reading, writing and copying it with each library, each in a process of its
// own so that the peak memory (getrusage) is that library's alone, prints the table, and then runs
// the in-process micro benchmarks on a 4 MB document.
//   bench_xml --child <read|write|copy> <qorxmlu|pugixml|tinyxml2> <file>   one measurement
//   bench_xml --generate <file> <megabytes>                                  the document only
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/xml/XML.h>

#include "XMLDocumentGenerator.h"

#include <benchmark/benchmark.h>
#include <pugixml.hpp>
#include <tinyxml2.h>

#include <sys/resource.h>

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
  double load = 0; // seconds to read the file into a tree
  double op = 0;   // seconds of the operation after it (0 for read)
  double text = 0; // qorxmlu: GetText alone, within write
};

Measurement RunOurs(const std::string& op, const std::string& file) {
  Measurement m;
  XML doc;
  auto start = Clock::now();
  std::unique_ptr<ErrorInfo> error(doc.ReadFile(String::FromUtf8(file)));
  m.load = Seconds(start);
  if (error) {
    std::fprintf(stderr, "qorxmlu: %s\n", error->Text().ToUtf8().c_str());
    std::exit(1);
  }
  if (op == "write") {
    start = Clock::now();
    const String text = doc.GetText();
    m.text = Seconds(start);
    benchmark::DoNotOptimize(text.Len());
    start = Clock::now();
    error.reset(doc.Write(String::FromUtf8(file + ".out")));
    m.op = Seconds(start);
  } else if (op == "copy") {
    start = Clock::now();
    XML copy(doc);
    m.op = Seconds(start);
    benchmark::DoNotOptimize(copy.TopTag());
  }
  return m;
}

Measurement RunPugi(const std::string& op, const std::string& file) {
  Measurement m;
  pugi::xml_document doc;
  auto start = Clock::now();
  if (!doc.load_file(file.c_str())) std::exit(1);
  m.load = Seconds(start);
  if (op == "write") {
    start = Clock::now();
    doc.save_file((file + ".out").c_str(), "\t");
    m.op = Seconds(start);
  } else if (op == "copy") {
    start = Clock::now();
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
  auto start = Clock::now();
  if (doc.LoadFile(file.c_str()) != tinyxml2::XML_SUCCESS) std::exit(1);
  m.load = Seconds(start);
  if (op == "write") {
    start = Clock::now();
    doc.SaveFile((file + ".out").c_str());
    m.op = Seconds(start);
  } else if (op == "copy") {
    start = Clock::now();
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
  std::printf("%.4f %.4f %.4f %ld\n", m.load, m.op, m.text, PeakKiB());
  return 0;
}

// ---- the comparison table -----------------------------------------------------------------

struct Result {
  Measurement m;
  double peakMiB = 0;
};

Result Spawn(const std::string& self, const std::string& op, const std::string& library,
             const std::string& file) {
  const std::string command = "'" + self + "' --child " + op + " " + library + " '" + file + "'";
  Result result;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    long kib = 0;
    if (std::fscanf(pipe, "%lf %lf %lf %ld", &result.m.load, &result.m.op, &result.m.text, &kib) == 4)
      result.peakMiB = kib / 1024.0;
    pclose(pipe);
  }
  return result;
}

void Compare(const std::string& self, std::uint64_t megabytes) {
  const auto file = std::filesystem::temp_directory_path() /
                    ("qorxmlu-bench-" + std::to_string(megabytes) + "mb.xml");
  bench::DocumentShape shape;
  WriteBytes(file, bench::GenerateDocument(megabytes * 1000 * 1000, &shape));
  std::printf("Document: %.1f MB, %.2f M lines, %.2f M elements, %.2f M attributes, %llu tags under "
              "the top tag\n\n",
              shape.bytes / 1e6, shape.lines / 1e6, shape.elements / 1e6, shape.attributes / 1e6,
              static_cast<unsigned long long>(shape.records));

  const char* libraries[] = {"qorxmlu", "pugixml", "tinyxml2"};
  Result read[3], write[3], copy[3];
  for (int i = 0; i < 3; ++i) {
    read[i] = Spawn(self, "read", libraries[i], file.string());
    write[i] = Spawn(self, "write", libraries[i], file.string());
    copy[i] = Spawn(self, "copy", libraries[i], file.string());
  }
  std::filesystem::remove(file);

  std::printf("%-34s %10s %10s %10s\n", "", libraries[0], libraries[1], libraries[2]);
  auto row = [](const char* label, double a, double b, double c) {
    std::printf("%-34s %10.3f %10.3f %10.3f\n", label, a, b, c);
  };
  row("ReadFile / load (s)", read[0].m.load, read[1].m.load, read[2].m.load);
  row("  peak memory (MiB)", read[0].peakMiB, read[1].peakMiB, read[2].peakMiB);
  row("GetText + Write / save (s)", write[0].m.op, write[1].m.op, write[2].m.op);
  std::printf("%-34s %10.3f\n", "  of which GetText alone (s)", write[0].m.text);
  row("  peak memory, load + save (MiB)", write[0].peakMiB, write[1].peakMiB, write[2].peakMiB);
  row("copy of the loaded tree (s)", copy[0].m.op, copy[1].m.op, copy[2].m.op);
  row("  peak memory, load + copy (MiB)", copy[0].peakMiB, copy[1].peakMiB, copy[2].peakMiB);

  std::printf("\nRatios (goal in brackets):\n");
  std::printf("  read time    qorxmlu / pugixml  %.2f  (<= 2)\n", read[0].m.load / read[1].m.load);
  std::printf("  read time    qorxmlu / tinyxml2 %.2f  (< 1)\n", read[0].m.load / read[2].m.load);
  std::printf("  peak memory  qorxmlu / pugixml  %.2f  (<= 2.5)\n", read[0].peakMiB / read[1].peakMiB);
  std::printf("  write time   qorxmlu / pugixml  %.2f  (<= 1.5)\n", write[0].m.op / write[1].m.op);
  std::printf("  qorxmlu copy / qorxmlu read     %.2f  (< 1)\n\n", copy[0].m.op / read[0].m.load);
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
  Compare(std::filesystem::canonical("/proc/self/exe").string(),
          megabytes ? std::strtoull(megabytes, nullptr, 10) : 100);

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
