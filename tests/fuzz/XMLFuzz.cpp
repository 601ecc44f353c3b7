// libFuzzer target for the XML reader: arbitrary bytes as text and as a file.
//
// Beyond "no crash, no leak, no hang", it checks that a read from a file and a read from the same
// text agree (for input without a byte order mark, which only the file reader looks at), that a
// file written from the tree holds the UTF-8 of its text, and that whatever a read leaves behind
// can be written, copied and checked, and reads back unchanged exactly when the round-trip check
// passes it.
#include <qorxmlu/xml/XML.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// Whether the trees hold the same names, values, attributes and nesting; their texts alone could
// agree where the trees do not.
bool SameTree(const XMLTag* a, const XMLTag* b) {
  std::vector<std::pair<const XMLTag*, const XMLTag*>> pending{{a, b}};
  while (!pending.empty()) {
    const auto [x, y] = pending.back();
    pending.pop_back();
    if (!(x->GetName() == y->GetName()) || !(x->GetValue() == y->GetValue()) ||
        x->NoOfAttributes() != y->NoOfAttributes() || x->NoOfNestedTags() != y->NoOfNestedTags())
      return false;
    for (std::size_t i = 0; i < x->NoOfAttributes(); ++i)
      if (!(x->GetAttrName(i) == y->GetAttrName(i)) || !(x->GetAttrVal(i) == y->GetAttrVal(i))) return false;
    for (std::size_t i = 0; i < x->NoOfNestedTags(); ++i) pending.push_back({x->GetNestedTag(i), y->GetNestedTag(i)});
  }
  return true;
}

Outcome Settle(XML& doc, ErrorInfo* error) {
  std::unique_ptr<ErrorInfo> owned(error);
  Outcome outcome{owned ? owned->Text().ToUtf8() : std::string(), doc.GetText()};
  XML copy(doc);
  if (!(copy.GetText() == outcome.text)) std::abort();
  // The round-trip check passes exactly the trees that read back from their text unchanged.
  XML back;
  const bool same = !ErrorPtr(back.ReadText(outcome.text)) && SameTree(back.TopTag(), doc.TopTag());
  if ((doc.FindUnwritableTag() == nullptr) != same) std::abort();
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
  // A tree read from a file may keep texts as the file's bytes: written back, they are still the
  // UTF-8 of the document's text.
  if (ErrorPtr(fromFile.Write(String(TempFile().u16string())))) std::abort();
  {
    std::ifstream in(TempFile(), std::ios::binary);
    const std::string written((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (written != fileOutcome.text.ToUtf8()) std::abort();
  }

  if (!HasByteOrderMark(bytes) &&
      (textOutcome.error != fileOutcome.error || !(textOutcome.text == fileOutcome.text))) {
    std::fprintf(stderr, "text and file reads differ: '%s' / '%s'\n", textOutcome.error.c_str(),
                 fileOutcome.error.c_str());
    std::abort();
  }
  return 0;
}
