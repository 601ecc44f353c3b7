// libFuzzer target for the XML reader: arbitrary bytes as text and as a file.
//
// Beyond "no crash, no leak, no hang", it checks that a read from a file and a read from the same
// text agree (for input without a byte order mark, which only the file reader looks at), and
// that whatever a read leaves behind can be written, copied and checked.
#include <qorxmlu/xml/XML.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <string_view>

namespace {

using namespace QOR;

const std::filesystem::path& TempFile() {
  static const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("qorxmlu-fuzz-" + std::to_string(std::random_device{}()) + ".xml");
  return path;
}

struct Outcome {
  std::string error;
  String text;
};

Outcome Settle(XML& doc, ErrorInfo* error) {
  std::unique_ptr<ErrorInfo> owned(error);
  Outcome outcome{owned ? owned->Text().ToUtf8() : std::string(), doc.GetText()};
  XML copy(doc);
  if (!(copy.GetText() == outcome.text)) std::abort();
  int version = 0;
  delete doc.CheckVersion(u"Fuzz", u"", version);
  return outcome;
}

bool HasByteOrderMark(std::string_view bytes) {
  return bytes.starts_with("\xEF\xBB\xBF") || bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  XML fromText(u"old", u"value", u"k", u"v");
  const Outcome textOutcome = Settle(fromText, fromText.ReadText(String::FromUtf8(bytes)));

  {
    std::ofstream out(TempFile(), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  XML fromFile(u"old", u"value", u"k", u"v");
  const Outcome fileOutcome = Settle(fromFile, fromFile.ReadFile(String(TempFile().u16string())));

  if (!HasByteOrderMark(bytes) &&
      (textOutcome.error != fileOutcome.error || !(textOutcome.text == fileOutcome.text))) {
    std::fprintf(stderr, "text and file reads differ: '%s' / '%s'\n", textOutcome.error.c_str(),
                 fileOutcome.error.c_str());
    std::abort();
  }
  return 0;
}
