// The writer: GetText and Write. One walk over the tree in a loop; the format has no escapes, so
// every name, value and comment goes out as it stands.
//
// The walk is written once for any output: a counter that sizes the text first, so that the
// String is allocated once, and the String's units themselves. A file gets UTF-8 encoded straight
// from the tree into one buffer, written whenever a block has gathered, so neither the whole text
// nor its encoded bytes are ever held at once.
#include <qorxmlu/xml/XML.h>

#include "xml/XMLTagAccess.h"

#include <qorxmlu/foundation/Encoding.h>

#include "foundation/Simd.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace QOR {

using detail::XMLTagAccess;

namespace {

using View = std::u16string_view;

// Stands for a line end inside the value of a tag with nested tags.
constexpr View crlfMarker = u"[crlf]";
constexpr View prolog = u"<?xml version=\"1.0\"?>";

// The line end, as the foundation's manipulator writes it.
const String& LineEnd() {
  static const String lineEnd = [] {
    String text;
    text << newline;
    return text;
  }();
  return lineEnd;
}

// Writes into units sized for the text beforehand (by LengthCount over the same walk), with room
// for slack units past the end, which the decoding of bytes may write over.
class UnitOutput {
public:
  static constexpr std::size_t slack = 16;
  explicit UnitOutput(char16_t* units) : at(units) {}
  void Put(View part) {
    if (part.size() <= 16) {
      for (char16_t unit : part) *at++ = unit;
    } else {
      std::memcpy(at, part.data(), part.size() * sizeof(char16_t));
      at += part.size();
    }
  }
  void Put(char16_t unit) { *at++ = unit; }
  // Bytes of a text held as ASCII and two-byte UTF-8 sequences; the slack takes what decoding
  // writes past them.
  void Put(std::string_view bytes) { at += detail::DecodeTwoByteUtf8(bytes, at, bytes.size() + slack); }
  void Indent(std::size_t level) {
    for (std::size_t i = 0; i < level; ++i) *at++ = u'\t';
  }
  void EndLine() { Put(lineEnd); }
  const char16_t* End() const { return at; }

private:
  char16_t* at;
  const View lineEnd = LineEnd().View();
};

// Encodes to UTF-8 into a buffer of bytes, as FlushFile would encode the same text: every piece
// stands between ASCII characters, so no surrogate pair is ever split between two pieces.
class Utf8Output {
public:
  explicit Utf8Output(std::size_t room) { Grow(room); }
  void Put(View part) {
    Reserve(part.size() * 3);
    std::size_t i = 0;
    // Names and values are short and mostly ASCII: no call for those.
    while (i < part.size() && part[i] < 0x80) bytes[used++] = static_cast<char>(part[i++]);
    if (i < part.size()) used += EncodeUtf8Units(part.data() + i, part.size() - i, bytes.get() + used);
  }
  void Put(char16_t unit) { Put(View(&unit, 1)); }
  // Bytes of a text held as ASCII and two-byte UTF-8 sequences: already what is written.
  void Put(std::string_view part) {
    if (part.empty()) return;
    Reserve(part.size());
    std::memcpy(bytes.get() + used, part.data(), part.size());
    used += part.size();
  }
  void Indent(std::size_t level) {
    Reserve(level);
    std::memset(bytes.get() + used, '\t', level);
    used += level;
  }
  void EndLine() { Put(lineEnd); }

  const char* Bytes() const { return bytes.get(); }
  std::size_t Size() const { return used; }
  void Clear() { used = 0; }

private:
  void Reserve(std::size_t more) {
    if (capacity - used < more) Grow(std::max(2 * capacity, used + more));
  }
  void Grow(std::size_t size) {
    std::unique_ptr<char[]> bigger(new char[size]);
    if (used) std::memcpy(bigger.get(), bytes.get(), used);
    bytes = std::move(bigger);
    capacity = size;
  }

  std::unique_ptr<char[]> bytes;
  std::size_t used = 0;
  std::size_t capacity = 0;
  const View lineEnd = LineEnd().View();
};

// Counts the units a UnitOutput would write, or more: for bytes kept as UTF-8 it counts the bytes,
// which is quicker than counting the units they decode to.
class LengthCount {
public:
  void Put(View part) { length += part.size(); }
  void Put(char16_t) { ++length; }
  void Put(std::string_view bytes) { length += bytes.size(); }
  void Indent(std::size_t level) { length += level; }
  void EndLine() { length += lineEnd; }
  std::size_t Length() const { return length; }

private:
  std::size_t length = 0;
  const std::size_t lineEnd = LineEnd().Len();
};

template <class Output>
void PutCommentLine(Output& out, const XMLTag& tag, std::size_t level) {
  out.Indent(level);
  out.Put(u"<!-- ");
  out.Put(XMLTagAccess::Comment(tag));
  out.Put(u" -->");
  out.EndLine();
}

// A tag's text in the form it is held.
template <class Output>
void PutText(Output& out, const detail::TagText& text) {
  text.Visit([&](auto part) { out.Put(part); });
}

// The value with every CR LF, then every remaining LF, replaced by the marker; a lone CR stays.
// (In bytes of UTF-8 the line ends stand as they do in the units.)
template <class Output>
void PutMarkedValue(Output& out, const detail::TagText& text) {
  text.Visit([&](auto value) {
    std::size_t from = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (value[i] != '\n') continue;
      const bool pair = i > from && value[i - 1] == '\r';
      out.Put(value.substr(from, i - from - (pair ? 1 : 0)));
      out.Put(crlfMarker);
      from = i + 1;
    }
    out.Put(value.substr(from));
  });
}

// Writes a tag's start line, or the whole tag if it has no nested tags. True when nested tags and
// an end line are to follow.
template <class Output>
bool PutOpening(Output& out, const XMLTag& tag, std::size_t level) {
  if (!XMLTagAccess::Parent(tag)) {
    out.Put(prolog);
    out.EndLine();
  }
  const detail::TagText& name = XMLTagAccess::Name(tag);
  const detail::TagText& value = XMLTagAccess::Value(tag);
  const bool hasComment = !XMLTagAccess::Comment(tag).empty();
  const bool hasNested = XMLTagAccess::NestedTags(tag).Size() != 0;

  out.Indent(level);
  out.Put(u'<');
  PutText(out, name);
  if (const detail::XMLAttrBlock* attributes = XMLTagAccess::Attributes(tag)) {
    for (std::uint32_t i = 0; i < attributes->count; ++i) {
      const detail::XMLAttrEntry& attr = attributes->Entries()[i];
      out.Put(u' ');
      PutText(out, attr.name);
      out.Put(u"=\"");
      PutText(out, attr.value);
      out.Put(u'"');
    }
  }
  if (value.IsEmpty() && !hasNested) {
    // The blank lets the reader end the name there; a comment has no place in this form.
    out.Put(u" />");
    out.EndLine();
    return false;
  }
  out.Put(u'>');
  if (!hasNested) {
    PutText(out, value);
    out.Put(u"</");
    PutText(out, name);
    out.Put(u'>');
    out.EndLine();
    if (hasComment) PutCommentLine(out, tag, level);
    return false;
  }
  out.EndLine();
  if (hasComment) PutCommentLine(out, tag, level);
  if (!value.IsEmpty()) {
    PutMarkedValue(out, value);
    out.EndLine();
  }
  return true;
}

template <class Output>
void PutClosing(Output& out, const XMLTag& tag, std::size_t level) {
  out.Indent(level);
  out.Put(u"</");
  PutText(out, XMLTagAccess::Name(tag));
  out.Put(u'>');
  out.EndLine();
}

// Puts the text of the tree under top; the open tags wait on a heap stack. After each line
// group, drain may take the text written so far; it returns false to stop the walk.
template <class Output, class Drain>
void PutTree(Output& out, const XMLTag& top, Drain drain) {
  struct Step {
    const XMLTag* tag;
    std::size_t next;
  };
  std::vector<Step> path;
  if (PutOpening(out, top, 0)) path.push_back({&top, 0});
  while (!path.empty()) {
    if (!drain()) return;
    const std::size_t level = path.size() - 1;
    Step& step = path.back();
    const detail::TagList& nested = XMLTagAccess::NestedTags(*step.tag);
    if (step.next < nested.Size()) {
      const XMLTag* child = nested[step.next++];
      if (PutOpening(out, *child, level + 1)) path.push_back({child, 0});
    } else {
      PutClosing(out, *step.tag, level);
      path.pop_back();
    }
  }
}

std::size_t TextLength(const XMLTag& top) {
  LengthCount count;
  PutTree(count, top, [] { return true; });
  return count.Length();
}

// Appends the tree's text to a String sized for it beforehand (at most a few units more).
void AppendTree(String& text, const XMLTag& top) {
  std::u16string& units = text.Std();
  const std::size_t before = units.size();
  units.resize(before + TextLength(top) + UnitOutput::slack);
  UnitOutput out(units.data() + before);
  PutTree(out, top, [] { return true; });
  units.resize(static_cast<std::size_t>(out.End() - units.data()));
}

} // namespace

String XML::GetText() const {
  String text;
  if (topTag) AppendTree(text, *topTag);
  return text;
}

void XML::Write(FormatableTextFile& file) const {
  if (!topTag) {
    file.text << u"No top tag";
    return;
  }
  // Written straight into the buffer; a failure takes back what this call added.
  const std::size_t before = file.text.Len();
  try {
    AppendTree(file.text, *topTag);
  } catch (...) {
    file.text.Std().resize(before);
    throw;
  }
}

ErrorInfo* XML::Write(String path) const {
  FormatableTextFile file(std::move(path));
  if (ErrorInfo* error = file.Open(false)) return error;
  ErrorInfo* flushError = nullptr;
  if (!topTag) {
    Write(file);
  } else {
    // Encoded straight from the tree and written whenever a block has gathered, as FlushFile
    // writes UTF-8 (no mark); the first failure ends the writing.
    constexpr std::size_t block = 1 << 20;
    Utf8Output out(block + 4096);
    auto write = [&] {
      flushError = file.Write(out.Bytes(), out.Size());
      if (!flushError) flushError = file.Flush(false);
      out.Clear();
      return flushError == nullptr;
    };
    PutTree(out, *topTag, [&] { return out.Size() < block || write(); });
    if (!flushError && out.Size() > 0) write();
  }
  if (!flushError) flushError = file.FlushFile(false, BaseFile::UTF8);
  return SafeConcat(flushError, file.Close());
}

} // namespace QOR
