// A host program's first look at the library: text, errors, shared arrays, a thread that waits on
// an event, and a text file written and read back line by line.
#include <qorxmlu/qorxmlu.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

using namespace QOR;

namespace {

// A worker that waits for its stop event, as a request's watchdog does.
class Watchdog : public Thread {
public:
  Watchdog() : Thread("Watchdog", new Event(true), false) {}
  ~Watchdog() override { BlockingStopRunning(); }
  int rounds = 0;

protected:
  ErrorInfo* ThreadBody(bool& finished) override {
    SVArray<Event*, Event*> events;
    events.Add(StopEvent());
    int result = WaitOnEvents(events, 20);
    ++rounds;
    finished = result == 0;
    return nullptr;
  }
};

void Show(const char* label, const String& text) { std::printf("%-22s %s\n", label, text.ToUtf8().c_str()); }

} // namespace

int main() {
  String greeting(u"Grüße aus qorxmlu");
  greeting << u", pi is about " << trunczero << whole(1) << dec(4) << 3.14159265;
  Show("text:", greeting);

  std::unique_ptr<ErrorInfo> error(SafeConcat(MakeError(String(u"Soap error: "), 3),
                                              MakeError(String(u"Server says: "), String(u"busy"))));
  Show("error chain:", error->FullText(String(u" | ")));

  VArray<String> names;
  names.SetCapacityIncrease(12);
  names.Add(String(u"first"));
  VArray<String> copy = names;
  copy.Add(String(u"second"));
  std::printf("%-22s original %zu, copy %zu (copy on write)\n", "arrays:", names.Size(), copy.Size());

  Watchdog watchdog;
  auto start = std::chrono::steady_clock::now();
  if (ErrorInfo* failure = watchdog.StartRunning()) LogAndResetError(failure);
  std::this_thread::sleep_for(std::chrono::milliseconds(70));
  watchdog.BlockingStopRunning();
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  std::printf("%-22s %d rounds of 20 ms, stopped after %lld ms\n", "thread:", watchdog.rounds,
              static_cast<long long>(ms));

  auto path = std::filesystem::temp_directory_path() / "qorxmlu-tour.txt";
  FormatableTextFile out{String(path.u16string())};
  if (ErrorInfo* failure = out.Open(false)) {
    LogAndResetError(failure);
    return 1;
  }
  out.text << u"line one" << newline << u"zeile zwei: äöü" << newline;
  ErrorInfo* failure = out.FlushFile(false, BaseFile::UTF8);
  if (!failure) failure = out.Close();
  if (failure) {
    LogAndResetError(failure);
    return 1;
  }
  LineParsableFile in{String(path.u16string())};
  failure = in.Open();
  String line;
  int number = 0;
  while (!failure && in.NextLine(line, failure, 0)) {
    String label(u"file line ");
    label << ++number << u":";
    Show(label.ToUtf8().c_str(), line);
  }
  if (failure) LogAndResetError(failure);
  in.Close();
  std::filesystem::remove(path);
  return 0;
}
