// The reader of the line dialect: ReadText and ReadFile.
//
// Lines are taken from the text or the file one at a time, with one line of look-ahead, so no copy
// of the whole document is ever held as lines. Empty lines and lines holding "!--" are skipped as
// they come. Tags are read in a loop with the open tags on a heap stack, so any depth reads in
// constant stack, and every step is linear in the length of its line.
#include <qorxmlu/foundation/LineParsableFile.h>
#include <qorxmlu/foundation/ParsableText.h>
#include <qorxmlu/xml/XML.h>

#include "xml/XMLTagAccess.h"

#include <bit>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace QOR {

using detail::TagList;
using detail::TagText;
using detail::XMLArena;
using detail::XMLAttrBlock;
using detail::XMLAttrEntry;
using detail::XMLTagAccess;

namespace {

using View = std::u16string_view;
constexpr std::size_t none = View::npos;

// The reader's messages, one per way a read can fail.
namespace message {
const char16_t* const unknownException = u"Unknown exception reading xml";
const char16_t* const emptyData = u"Empty XML data";
const char16_t* const unrecognisedVersion = u"Unrecognised XML version";
const char16_t* const missingTagStart = u"Missing tag start in XML data";
const char16_t* const badlyPlacedTagEnd = u"Badly placed tag end in XML data";
const char16_t* const badlyFormedData = u"Badly formed XML data";
const char16_t* const badlyFormedName = u"Badly formed XML tag name";
const char16_t* const badlyFormedAttrValue = u"Badly formed XML attribute value";
const char16_t* const badlyFormedEndTag = u"Badly formed end tag in XML data";
const char16_t* const missingEndTag = u"Missing end tag for XML data";
} // namespace message

ErrorInfo* Fail(const char16_t* text) { return MakeError(String(text)); }

bool Contains(View line, View text) { return line.find(text) != none; }

// The characters that String::TrimAll and TrimLeft remove.
bool IsBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\v' || c == u'\f'; }

View TrimLeft(View text) {
  std::size_t start = 0;
  while (start < text.size() && IsBlank(text[start])) ++start;
  return text.substr(start);
}

View TrimAll(View text) {
  text = TrimLeft(text);
  std::size_t end = text.size();
  while (end > 0 && IsBlank(text[end - 1])) --end;
  return text.substr(0, end);
}

// Where the raw lines come from.
class LineSource {
public:
  virtual ~LineSource() = default;
  // Puts the next line, without its line end, into line; false at the end.
  virtual bool Next(String& line) = 0;
};

class TextLines final : public LineSource {
public:
  explicit TextLines(String text) : parser(std::move(text)) { parser.lineMode = true; }
  bool Next(String& line) override { return parser.GetNextElem(&line, 0); }

private:
  ParsableText parser;
};

// Lines of a file. A read error ends the lines and is kept for the caller; an exception from the
// file layer is marked, so that it can pass to the caller unchanged.
class FileLines final : public LineSource {
public:
  explicit FileLines(LineParsableFile& file) : file(file) {}
  ~FileLines() override { delete error; }

  bool Next(String& line) override {
    if (error || ended) return false;
    try {
      ended = file.NextLine(line, error, 0) == 0;
    } catch (...) {
      threw = true;
      throw;
    }
    return !ended && !error;
  }

  // Reads what is left of the file, for its errors only.
  void Drain() {
    String line;
    while (Next(line)) {
    }
  }

  bool Threw() const { return threw; }
  ErrorInfo* TakeError() { return std::exchange(error, nullptr); }

private:
  LineParsableFile& file;
  ErrorInfo* error = nullptr;
  bool ended = false;
  bool threw = false;
};

// The position of the first "<", ">" or "!" in the text, or its length; eight units at a time
// where the processor allows.
std::size_t NextMarker(const char16_t* text, std::size_t length) {
  std::size_t at = 0;
#if defined(__SSE2__)
  const __m128i open = _mm_set1_epi16('<'), close = _mm_set1_epi16('>'), bang = _mm_set1_epi16('!');
  for (; at + 8 <= length; at += 8) {
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
    const __m128i hits = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi16(units, open), _mm_cmpeq_epi16(units, close)),
                                      _mm_cmpeq_epi16(units, bang));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hits));
    if (mask != 0) return at + static_cast<std::size_t>(std::countr_zero(mask)) / 2;
  }
#endif
  for (; at < length; ++at) {
    if (text[at] == u'<' || text[at] == u'>' || text[at] == u'!') return at;
  }
  return length;
}

// Where the characters that steer the reading stand in a line, found in one pass. Blanks at the
// ends of a line never hold them, so the positions serve the trimmed line too.
struct LineMarks {
  std::size_t firstOpen = none;    // "<"
  std::size_t firstEndOpen = none; // "</"
  std::size_t firstClose = none;   // ">"
  bool emptyTagEnd = false;        // "/>" somewhere
  bool comment = false;            // "!--" somewhere

  explicit LineMarks(View line) {
    const char16_t* text = line.data();
    const std::size_t length = line.size();
    for (std::size_t i = NextMarker(text, length); i < length; i += 1 + NextMarker(text + i + 1, length - i - 1)) {
      const char16_t c = text[i];
      if (c == u'<') {
        if (firstOpen == none) firstOpen = i;
        if (firstEndOpen == none && i + 1 < length && text[i + 1] == u'/') firstEndOpen = i;
      } else if (c == u'>') {
        if (firstClose == none) firstClose = i;
        if (i > 0 && text[i - 1] == u'/') emptyTagEnd = true;
      } else if (i + 2 < length && text[i + 1] == u'-' && text[i + 2] == u'-') {
        comment = true;
        return;
      }
    }
  }
  LineMarks() = default;
};

// Whether "</", name and ">" stand in the line; from is the first "</" of the line.
bool ContainsEndTag(View line, std::size_t from, View name) {
  for (std::size_t at = from; at != none; at = line.find(u"</", at + 2)) {
    const std::size_t close = at + 2 + name.size();
    if (close < line.size() && line[close] == u'>' && line.compare(at + 2, name.size(), name) == 0) return true;
  }
  return false;
}

struct Line {
  String text;
  LineMarks marks;

  bool HasEndTag(View name) const {
    return marks.firstEndOpen != none && ContainsEndTag(text.View(), marks.firstEndOpen, name);
  }
};

// The document's lines without empty and comment lines, read one ahead of the current one.
class DocumentLines {
public:
  explicit DocumentLines(LineSource& source) : source(source) {}

  // Moves to the next line; false when there is none.
  bool Advance() {
    if (!nextKnown) hasNext = Fetch(slots[1 - currentSlot]);
    nextKnown = false;
    if (!hasNext) return false;
    currentSlot = 1 - currentSlot;
    return true;
  }
  const Line& Current() const { return slots[currentSlot]; }
  // Whether a line follows the current one.
  bool HasNext() {
    if (!nextKnown) {
      hasNext = Fetch(slots[1 - currentSlot]);
      nextKnown = true;
    }
    return hasNext;
  }
  // The line after the current one; HasNext() must have said there is one.
  const Line& Next() const { return slots[1 - currentSlot]; }

private:
  bool Fetch(Line& line) {
    while (source.Next(line.text)) {
      if (line.text.IsEmpty()) continue;
      line.marks = LineMarks(line.text.View());
      if (!line.marks.comment) return true;
    }
    return false;
  }

  LineSource& source;
  Line slots[2]; // the current line and the one after it take turns
  int currentSlot = 0;
  bool nextKnown = false;
  bool hasNext = false;
};

// Where a read puts what it makes: the tags into one arena, their texts and attribute lists into
// the other. The top tag outlives the read, so it holds texts and attributes of its own.
class TreeStorage {
public:
  TreeStorage(XMLTag& top, XMLArena& tags, XMLArena& texts) : top(top), tags(tags), texts(texts) {}

  XMLTag* NewTag(XMLTag* parent) { return XMLTagAccess::MakeIn(tags, parent); }

  void SetText(const XMLTag& tag, TagText& field, View text) {
    if (&tag == &top) field.Assign(text);
    else field.Borrow(texts.Keep(text));
  }

  // Gives the tag the attributes gathered in pairs (name, value, name, value, ...).
  void SetAttributes(XMLTag& tag, const std::vector<View>& pairs) {
    const std::size_t count = pairs.size() / 2;
    if (count == 0) return;
    const bool isTop = &tag == &top;
    XMLAttrBlock* block = isTop ? XMLAttrBlock::Create(count) : XMLAttrBlock::Create(texts, count);
    XMLTagAccess::SetAttributes(tag, block);
    for (std::size_t i = 0; i < count; ++i) {
      XMLAttrEntry& entry = block->Append();
      if (isTop) {
        entry.name.Assign(pairs[2 * i]);
        entry.value.Assign(pairs[2 * i + 1]);
      } else {
        entry.name.Borrow(texts.Keep(pairs[2 * i]));
        entry.value.Borrow(texts.Keep(pairs[2 * i + 1]));
      }
    }
  }

  // Gives the tag its nested tags, which stand at the end of finished from index first on.
  void SetNestedTags(XMLTag& tag, std::vector<XMLTag*>& finished, std::size_t first) {
    const std::size_t count = finished.size() - first;
    if (count == 0) return;
    TagList& list = XMLTagAccess::NestedTags(tag);
    list.Lend(static_cast<XMLTag**>(tags.Allocate(count * sizeof(XMLTag*))), count);
    for (std::size_t i = first; i < finished.size(); ++i) list.Add(finished[i]);
    finished.resize(first);
  }

private:
  XMLTag& top;
  XMLArena& tags;
  XMLArena& texts;
};

// The attributes of a start tag, from the text between "<" and ">" behind the name and one
// separator, gathered in pairs. A "/" ends the scan even inside quotes; a value opened and not
// closed, or an "=" with no quote behind it, is an error. Text with no "=" is passed over.
ErrorInfo* ScanAttributes(View inner, std::size_t start, std::vector<View>& pairs) {
  const std::size_t length = inner.size();
  std::size_t i = start;
  for (;;) {
    const std::size_t nameStart = i;
    while (i < length && inner[i] != u'=' && inner[i] != u'/') ++i;
    if (i >= length || inner[i] == u'/') return nullptr;
    const View attrName = TrimLeft(inner.substr(nameStart, i - nameStart));
    ++i;
    while (i < length && inner[i] != u'"' && inner[i] != u'\'' && inner[i] != u'/') ++i;
    if (i >= length || inner[i] == u'/') return Fail(message::badlyFormedAttrValue);
    const char16_t quote = inner[i];
    const std::size_t valueStart = ++i;
    while (i < length && inner[i] != quote && inner[i] != u'/') ++i;
    if (i >= length || inner[i] == u'/') return Fail(message::badlyFormedAttrValue);
    pairs.push_back(attrName);
    pairs.push_back(inner.substr(valueStart, i - valueStart));
    ++i;
  }
}

// Reads the start line of a tag: name, attributes, and the value of a tag that ends on the same
// line. complete tells whether the tag ends there. pairs is room for the scan of the attributes.
ErrorInfo* ReadStartLine(TreeStorage& storage, XMLTag& tag, const Line& rawLine, bool& complete,
                         std::vector<View>& pairs) {
  const LineMarks& marks = rawLine.marks;
  const View raw = rawLine.text.View();
  const View line = TrimAll(raw);
  const std::size_t shift = static_cast<std::size_t>(line.data() - raw.data());
  auto trimmed = [shift](std::size_t at) { return at == none ? none : at - shift; };
  const std::size_t start = trimmed(marks.firstOpen);
  const std::size_t end = trimmed(marks.firstEndOpen);
  const std::size_t close = trimmed(marks.firstClose);
  if (start == none) return Fail(message::missingTagStart);
  if (end != none && end <= start) return Fail(message::badlyPlacedTagEnd);
  if (close == none || close < start) return Fail(message::badlyFormedData);
  const View inner = line.substr(start + 1, close - start - 1);
  std::size_t nameLength = 0;
  while (nameLength < inner.size() && inner[nameLength] != u' ' && inner[nameLength] != u'\t') ++nameLength;
  if (nameLength == 0) return Fail(message::badlyFormedName);
  const View name = inner.substr(0, nameLength);
  storage.SetText(tag, XMLTagAccess::Name(tag), name);
  pairs.clear();
  ErrorInfo* scanError = ScanAttributes(inner, nameLength + 1, pairs);
  // The attributes read before a failure stay with the tag.
  storage.SetAttributes(tag, pairs);
  if (scanError) return scanError;

  complete = true;
  if (marks.emptyTagEnd) return nullptr;
  if (end != none) {
    // One line: the first "</" must open this tag's own end tag.
    const std::size_t endClose = end + 2 + name.size();
    if (endClose >= line.size() || line[endClose] != u'>' || line.compare(end + 2, name.size(), name) != 0)
      return Fail(message::badlyFormedEndTag);
    // In "<a </a>" the first ">" closes the end tag itself: there is no value then.
    storage.SetText(tag, XMLTagAccess::Value(tag), close < end ? line.substr(close + 1, end - close - 1) : View());
    return nullptr;
  }
  complete = false;
  return nullptr;
}

// Builds the tree under the top tag from the line at the cursor on. A tag joins its parent's list
// only when it has been read completely; on failure the unfinished tags are destroyed.
class TreeReader {
public:
  TreeReader(XMLTag& top, DocumentLines& lines, TreeStorage& storage) : top(top), lines(lines), storage(storage) {}
  TreeReader(const TreeReader&) = delete;
  TreeReader& operator=(const TreeReader&) = delete;
  ~TreeReader() {
    // After a failure: each open tag keeps what it had finished, and all but the top tag go.
    if (starting != &top) delete starting;
    while (!openTags.empty()) {
      const Open open = openTags.back();
      openTags.pop_back();
      try {
        storage.SetNestedTags(*open.tag, finished, open.firstNested);
      } catch (...) {
        // No room left to list them: the finished tags go too.
        for (std::size_t i = open.firstNested; i < finished.size(); ++i) delete finished[i];
        finished.resize(open.firstNested);
      }
      if (open.tag != &top) delete open.tag;
    }
  }

  ErrorInfo* Run() {
    starting = &top;
    for (;;) {
      if (starting) {
        bool complete = false;
        if (ErrorInfo* error = ReadStartLine(storage, *starting, lines.Current(), complete, pairs)) return error;
        XMLTag* tag = std::exchange(starting, nullptr);
        if (complete) {
          if (tag == &top) return nullptr;
          finished.push_back(tag);
        } else {
          openTags.push_back({tag, finished.size()});
        }
        continue;
      }
      if (ErrorInfo* error = ReadOn()) return error;
      if (openTags.empty()) return nullptr;
    }
  }

private:
  struct Open {
    XMLTag* tag;
    std::size_t firstNested; // where its finished nested tags begin in finished
  };

  // One line inside the innermost open tag: its end, a nested tag, or its text line.
  ErrorInfo* ReadOn() {
    const Open open = openTags.back();
    const View name = XMLTagAccess::Name(*open.tag).View();
    if (!lines.HasNext()) return Fail(message::badlyFormedData);
    lines.Advance();
    const Line& line = lines.Current();
    if (line.HasEndTag(name)) {
      openTags.pop_back();
      storage.SetNestedTags(*open.tag, finished, open.firstNested);
      if (open.tag != &top) finished.push_back(open.tag);
      return nullptr;
    }
    if (line.marks.firstOpen != none) {
      starting = storage.NewTag(open.tag);
      return nullptr;
    }
    // A text line is the tag's value and must stand directly before the end tag.
    storage.SetText(*open.tag, XMLTagAccess::Value(*open.tag), line.text.View());
    if (!lines.HasNext()) return Fail(message::badlyFormedData);
    if (!lines.Next().HasEndTag(name)) return Fail(message::missingEndTag);
    return nullptr;
  }

  XMLTag& top;
  DocumentLines& lines;
  TreeStorage& storage;
  XMLTag* starting = nullptr;   // the tag whose start line is at the cursor; not yet attached
  std::vector<Open> openTags;   // tags read over several lines, outermost first
  std::vector<XMLTag*> finished; // tags read completely, not yet given to their open parent
  std::vector<View> pairs;       // the attribute scan's room, reused from tag to tag
};

// Checks the prolog and reads the top tag from the line behind it.
ErrorInfo* ParseLines(XMLTag& top, DocumentLines& lines, TreeStorage& storage) {
  if (!lines.Advance() || !lines.HasNext()) return Fail(message::emptyData);
  if (!Contains(lines.Current().text.View(), u"xml version=\"1.0\"")) return Fail(message::unrecognisedVersion);
  lines.Advance();
  TreeReader reader(top, lines, storage);
  return reader.Run();
}

} // namespace

ErrorInfo* XML::ReadText(String text) {
  try {
    ClearTree();
    tagArena = XMLArena::Create();
    textArena = XMLArena::Create();
    TreeStorage storage(*topTag, *tagArena, *textArena);
    TextLines source(std::move(text));
    DocumentLines lines(source);
    return ParseLines(*topTag, lines, storage);
  } catch (...) {
    return Fail(message::unknownException);
  }
}

ErrorInfo* XML::ReadFile(String path) {
  ClearTree();
  LineParsableFile file(std::move(path));
  if (ErrorInfo* error = file.Open()) return error;

  FileLines source(file);
  DocumentLines lines(source);
  const String oldName = topTag->GetName();
  const String oldValue = topTag->GetValue();
  tagArena = XMLArena::Create();
  textArena = XMLArena::Create();
  TreeStorage storage(*topTag, *tagArena, *textArena);
  std::unique_ptr<ErrorInfo> result;
  try {
    result.reset(ParseLines(*topTag, lines, storage));
  } catch (...) {
    if (source.Threw()) throw; // the file layer's own exceptions are not the parser's to turn
    result.reset(Fail(message::unknownException));
  }
  // A read error anywhere in the file wins over whatever the lines said, and leaves the document
  // as cleared before reading; so the file is read to its end even after the top tag is complete.
  source.Drain();
  if (ErrorInfo* readError = source.TakeError()) {
    ClearTree();
    XMLTagAccess::Name(*topTag).Assign(oldName.View());
    XMLTagAccess::Value(*topTag).Assign(oldValue.View());
    return readError;
  }
  return result.release();
}

} // namespace QOR
