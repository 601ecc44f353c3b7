// The demo: a sample service on a free loopback port, and the library used as a host would use it.
#include "SampleService.h"
#include "ToolSupport.h"

#include <qorxmlu/query/SafeItem.h>
#include <qorxmlu/query/SimpleSoap.h>
#include <qorxmlu/query/SoapQueue.h>
#include <qorxmlu/trace/SafeTrace.h>
#include <qorxmlu/xml/XML.h>
#include <qorxmlu/xml/XMLTag.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace qorxml {

namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The value of a nested tag of tag, or empty.
std::string NestedValue(const QOR::XMLTag* tag, const char16_t* name) {
  const QOR::XMLTag* nested = tag ? tag->FindNestedTag(name) : nullptr;
  return nested ? Utf8(nested->GetValue()) : "";
}

// A folder for the demo's files, removed with everything in it at the end.
class DemoFolder {
public:
  DemoFolder()
      : path(std::filesystem::temp_directory_path() /
             ("qorxml-demo-" + std::to_string(Clock::now().time_since_epoch().count()))) {
    std::filesystem::create_directories(path);
  }
  ~DemoFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  const std::filesystem::path path;
};

class Story {
public:
  explicit Story(std::ostream& out) : out(out) {}
  int Run();

private:
  // One line of the story; a step that did not go as expected counts against the end result.
  void Say(const std::string& topic, const std::string& text, bool asExpected = true) {
    std::string padded = topic;
    padded.resize(std::max<std::size_t>(topic.size() + 1, 11), ' ');
    out << padded << text << std::endl;
    if (!asExpected) ++surprises;
  }
  static std::string Took(Clock::time_point start) { return " (" + std::to_string(MsSince(start)) + " ms)"; }

  void Document();
  void Queries();
  void Upload();
  void Tracing();
  void TraceUpload();
  std::unique_ptr<ProgressClient> Client(unsigned requestTimeoutSeconds = 60) {
    auto client = MakeClient("127.0.0.1:" + std::to_string(service->Port()), false, 10, requestTimeoutSeconds);
    client->AddUrlPrefix(u"/");
    return client;
  }

  std::ostream& out;
  DemoFolder folder;
  std::unique_ptr<SampleService> service;
  int surprises = 0;
};

int Story::Run() {
  auto start = Clock::now();
  out << "qorxml demo: the library as a host uses it, against a sample service of its own" << std::endl;
  ServiceSettings settings;
  settings.port = 0;
  settings.uploadFolder = folder.path / "uploads";
  std::string error;
  service = StartSampleService(settings, error);
  if (!service) {
    Say("service", "cannot start: " + error, false);
    return 1;
  }
  Say("service", "listening on " + service->Url() + Took(start));
  {
    HttpSession session;
    if (!session.Error().empty()) {
      Say("http", "cannot load WinInet: " + session.Error(), false);
      return 1;
    }
    Document();
    Queries();
    Upload();
    Tracing();
    TraceUpload();
  }
  service->Stop();
  Say("service", "answered " + std::to_string(service->Requests()) + " requests, stopped; demo files removed");
  std::string verdict =
      surprises ? std::to_string(surprises) + " steps did not go as expected" : "every step as expected";
  Say("done", verdict + Took(start));
  return surprises ? 1 : 0;
}

void Story::Document() {
  auto start = Clock::now();
  QOR::XML settings(u"Settings");
  QOR::XMLTag* top = settings.TopTag();
  top->AddAttr(u"Version", u"2");
  QOR::XMLTag* window = top->NestTag(u"Window");
  window->NestTag(u"Width", u"1280");
  window->NestTag(u"Height", u"800");
  top->NestTag(u"User", u"Ada");
  QOR::XMLTag* recent = top->NestTag(u"Recent");
  for (int i = 1; i <= 3; ++i) recent->NestTag(u"File", Text("report-" + std::to_string(i) + ".txt"));

  auto path = folder.path / "settings.xml";
  std::string error = TakeErrorText(settings.Write(QOR::String(path.u16string())));
  QOR::XML readBack;
  if (error.empty()) error = TakeErrorText(readBack.ReadFile(QOR::String(path.u16string())));
  bool same = error.empty() && readBack.GetText() == settings.GetText();
  Say("document", error.empty() ? "built Settings (8 tags), wrote settings.xml (" +
                                      std::to_string(std::filesystem::file_size(path)) + " bytes), read it back: " +
                                      (same ? "the same document" : "a different document") + Took(start)
                                : "write or read failed: " + error,
      same);

  int version = 0;
  QOR::XML::SetAppVersion(2);
  std::string accepted = TakeErrorText(readBack.CheckVersion(u"qorxml demo", QOR::String(), version));
  QOR::XML::SetAppVersion(1);
  std::string refused = TakeErrorText(readBack.CheckVersion(u"qorxml demo", QOR::String(), version));
  Say("version", "data version " + std::to_string(version) + ": application version 2 " +
                     (accepted.empty() ? "accepts it" : "refuses it: " + accepted),
      accepted.empty());
  Say("", "application version 1 refuses it: \"" + refused + "\"", !refused.empty());
}

void Story::Queries() {
  struct Outcome {
    long doneAfterMs = 0;
    std::string error;
    std::string caller;
  };
  auto client = Client();
  QOR::SoapQueue queue;
  std::string error = TakeErrorText(queue.StartRunning(client.get()));
  if (!error.empty()) return Say("queries", "the queue does not start: " + error, false);

  auto start = Clock::now();
  std::vector<Outcome> outcomes(3);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i)
    threads.emplace_back([&, i] {
      QOR::SafeItem<QOR::SimpleSoap> query(new QOR::SimpleSoap(u"demo/query", i + 1, u"demo"));
      query.Get()->AddParameter(u"caller", Text("thread " + std::to_string(i + 1)));
      query.Get()->AddParameter(u"delay", u"150");
      if (i == 2) {
        query.Get()->AddParameter(u"status", u"7");
        query.Get()->AddParameter(u"prefix", u"Demo service refused the query");
      }
      outcomes[i].error = TakeErrorText(queue.AddBlockingSoap(query));
      outcomes[i].doneAfterMs = MsSince(start);
      const QOR::XMLTag* field = query.Get()->TopTag()->FindNestedTag(u"Field");
      outcomes[i].caller = NestedValue(field, u"Value");
    });
  for (std::thread& thread : threads) thread.join();
  delete queue.StopRunning();

  Say("queries", "3 threads, one queue, one worker: each query waits for the one before" + Took(start));
  for (int i = 0; i < 3; ++i) {
    const Outcome& outcome = outcomes[i];
    bool expected = (i == 2) != outcome.error.empty();
    std::string judged = outcome.error.empty() ? "success" : "error \"" + outcome.error + "\"";
    Say("", "thread " + std::to_string(i + 1) + ": " + judged + " after " + std::to_string(outcome.doneAfterMs) +
                " ms; the service saw " + (outcome.caller.empty() ? "no caller" : outcome.caller),
        expected);
  }
}

void Story::Upload() {
  constexpr std::size_t size = 50u * 1024 * 1024;
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 4096) & 0xff);
  auto path = folder.path / "upload.bin";
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
  std::string expectedHash = Sha256Hex(bytes);
  bytes.clear();
  bytes.shrink_to_fit();

  auto client = Client(120);
  std::mutex lock;
  std::vector<int> figures;
  bool drawBar = StderrIsTerminal();
  client->AddFormField(u"purpose", u"demo upload");
  client->SetUploadFile(QOR::String(path.u16string()), u"userfile");
  client->WatchNextPost([&](int percent) {
    if (drawBar) DrawProgressBar(percent);
    std::lock_guard<std::mutex> hold(lock);
    figures.push_back(percent);
  });
  auto start = Clock::now();
  QOR::String reply;
  std::string error = TakeErrorText(client->Retrieve(u"demo/upload", reply));
  long ms = std::max<long>(MsSince(start), 1);
  if (!error.empty()) return Say("upload", "50 MB post failed: " + error, false);

  QOR::XML document;
  error = TakeErrorText(document.ReadText(reply));
  const QOR::XMLTag* file = document.TopTag()->FindNestedTag(u"File");
  std::string gotSize = NestedValue(file, u"Size"), gotHash = NestedValue(file, u"SHA256");
  bool same = error.empty() && gotSize == std::to_string(size) && gotHash == expectedHash;
  std::lock_guard<std::mutex> hold(lock);
  std::string shown;
  for (int figure : figures) shown += (shown.empty() ? "" : " ") + std::to_string(figure);
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.1f", 50.0 * 1000.0 / static_cast<double>(ms));
  Say("upload", "50 MB with progress, " + std::to_string(ms) + " ms (" + rate + " MB/s, paced for at least 1 s)",
      !figures.empty() && figures.back() == 100);
  Say("", "progress figures: " + shown);
  Say("", "the service got " + gotSize + " bytes, SHA-256 " + gotHash.substr(0, 16) + "... " +
              (same ? "matches" : "does not match " + expectedHash.substr(0, 16)),
      same);
}

void Story::Tracing() {
  auto start = Clock::now();
  auto tracePath = folder.path / "trace.txt";
  auto client = Client();
  try {
    QOR::SafeTrace::SetTracePath(QOR::String(tracePath.u16string()));
    QOR::SafeTrace::SetTraceClient(client.get()); // the first start finds no file and makes an empty one
  } catch (const std::runtime_error& failure) {
    return Say("trace", std::string("cannot start tracing: ") + failure.what(), false);
  }
  std::vector<std::thread> threads;
  for (int t = 1; t <= 2; ++t)
    threads.emplace_back([t] {
      static const QOR::SafeTrace tracer("DemoWorker");
      QOR::SafeTrace::FuncTrace function("Count", tracer);
      for (int i = 1; i <= 10; ++i) function.Trace(Text("thread " + std::to_string(t) + " step " + std::to_string(i)));
    });
  for (std::thread& thread : threads) thread.join();

  std::istringstream lines(ReadAll(tracePath));
  int whole = 0, total = 0;
  for (std::string line; std::getline(lines, line); ++total)
    if (line.rfind("Entering DemoWorker::Count", 0) == 0 || line.rfind("Leaving DemoWorker::Count", 0) == 0 ||
        line.rfind("DemoWorker::Count: thread ", 0) == 0)
      ++whole;
  Say("trace", "2 threads wrote " + std::to_string(total) + " lines to trace.txt, " + std::to_string(whole) +
                   " of them whole" + Took(start),
      total == 24 && whole == 24);
}

void Story::TraceUpload() {
  auto start = Clock::now();
  auto tracePath = folder.path / "trace.txt";
  std::string traced = ReadAll(tracePath);
  auto client = Client();
  try {
    QOR::SafeTrace::SetTraceClient(client.get()); // as the next start of the host would
  } catch (const std::runtime_error& failure) {
    return Say("next start", std::string("cannot upload the trace: ") + failure.what(), false);
  }
  std::string storedAs;
  bool same = false;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path / "uploads", missing)) {
    storedAs = entry.path().filename().string();
    same = ReadAll(entry.path()) == traced;
  }
  bool emptied = std::filesystem::exists(tracePath) && std::filesystem::file_size(tracePath) == 0;
  Say("next start", "SetTraceClient sent trace.txt to php/SafeTrace.php" + Took(start));
  Say("", storedAs.empty() ? "the service stored nothing"
                           : "the service stored " + storedAs + " (" + std::to_string(traced.size()) + " bytes, " +
                                 (same ? "the same lines" : "other lines") + ")",
      same);
  Say("", emptied ? "the trace file is empty again, ready for this run" : "the trace file was not emptied", emptied);
}

} // namespace

int RunDemoStory(std::ostream& out) {
  try {
    return Story(out).Run();
  } catch (const std::exception& failure) {
    out << "qorxml demo: " << failure.what() << std::endl;
    return 1;
  }
}

} // namespace qorxml
