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

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace QOR {

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
    for (std::size_t i = 0; i < length; ++i) {
      const char16_t c = text[i];
      if (c > u'>') continue; // letters and all non-ASCII text
      if (c == u'<') {
        if (firstOpen == none) firstOpen = i;
        if (firstEndOpen == none && i + 1 < length && text[i + 1] == u'/') firstEndOpen = i;
      } else if (c == u'>') {
        if (firstClose == none) firstClose = i;
        if (i > 0 && text[i - 1] == u'/') emptyTagEnd = true;
      } else if (c == u'!' && i + 2 < length && text[i + 1] == u'-' && text[i + 2] == u'-') {
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
    if (!nextKnown) hasNext = Fetch(next);
    nextKnown = false;
    if (!hasNext) return false;
    std::swap(current, next);
    return true;
  }
  const Line& Current() const { return current; }
  // Whether a line follows the current one.
  bool HasNext() {
    if (!nextKnown) {
      hasNext = Fetch(next);
      nextKnown = true;
    }
    return hasNext;
  }
  // The line after the current one; HasNext() must have said there is one.
  const Line& Next() const { return next; }

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
  Line current;
  Line next;
  bool nextKnown = false;
  bool hasNext = false;
};

// The attributes of a start tag, from the text between "<" and ">" behind the name and one
// separator. A "/" ends the scan even inside quotes; a value opened and not closed, or an "="
// with no quote behind it, is an error. Text with no "=" is passed over.
ErrorInfo* ScanAttributes(XMLTag& tag, View inner, std::size_t start) {
  bool waitingForEquals = true;
  bool waitingForQuote = false;
  char16_t openQuote = 0;
  std::size_t nameStart = start;
  std::size_t valueStart = 0;
  View attrName;
  for (std::size_t i = start; i < inner.size(); ++i) {
    const char16_t c = inner[i];
    if (c == u'/') break;
    if (waitingForEquals && c == u'=') {
      attrName = TrimLeft(inner.substr(nameStart, i - nameStart));
      waitingForEquals = false;
      waitingForQuote = true;
    } else if (waitingForQuote && (c == u'"' || c == u'\'')) {
      waitingForQuote = false;
      openQuote = c;
      valueStart = i + 1;
    } else if (openQuote != 0 && c == openQuote) {
      XMLTagAccess::AddAttr(tag, attrName, inner.substr(valueStart, i - valueStart));
      openQuote = 0;
      nameStart = i + 1;
      waitingForEquals = true;
    }
  }
  if (waitingForQuote || openQuote != 0) return Fail(message::badlyFormedAttrValue);
  return nullptr;
}

// Reads the start line of a tag: name, attributes, and the value of a tag that ends on the same
// line. complete tells whether the tag ends there.
ErrorInfo* ReadStartLine(XMLTag& tag, const Line& rawLine, bool& complete) {
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
  std::size_t nameLength = inner.find_first_of(u" \t");
  if (nameLength == none) nameLength = inner.size();
  if (nameLength == 0) return Fail(message::badlyFormedName);
  const View name = inner.substr(0, nameLength);
  XMLTagAccess::Name(tag).Std().assign(name);
  if (ErrorInfo* error = ScanAttributes(tag, inner, nameLength + 1)) return error;

  complete = true;
  if (marks.emptyTagEnd) return nullptr;
  if (end != none) {
    // One line: the first "</" must open this tag's own end tag.
    const std::size_t endClose = end + 2 + name.size();
    if (endClose >= line.size() || line[endClose] != u'>' || line.compare(end + 2, name.size(), name) != 0)
      return Fail(message::badlyFormedEndTag);
    // In "<a </a>" the first ">" closes the end tag itself: there is no value then.
    String& value = XMLTagAccess::Value(tag);
    if (close < end) value.Std().assign(line.substr(close + 1, end - close - 1));
    else value.SetEmpty();
    return nullptr;
  }
  complete = false;
  return nullptr;
}

// Builds the tree under the top tag from the line at the cursor on. A tag joins its parent's list
// only when it has been read completely; on failure the unfinished tags are destroyed.
class TreeReader {
public:
  TreeReader(XMLTag& top, DocumentLines& lines) : top(top), lines(lines) {}
  TreeReader(const TreeReader&) = delete;
  TreeReader& operator=(const TreeReader&) = delete;
  ~TreeReader() {
    if (starting != &top) delete starting;
    for (XMLTag* open : openTags) {
      if (open != &top) delete open;
    }
  }

  ErrorInfo* Run() {
    starting = &top;
    for (;;) {
      if (starting) {
        bool complete = false;
        if (ErrorInfo* error = ReadStartLine(*starting, lines.Current(), complete)) return error;
        XMLTag* tag = starting;
        if (complete) {
          starting = nullptr;
          if (tag == &top) return nullptr;
          Attach(tag);
        } else {
          openTags.push_back(tag);
          starting = nullptr;
        }
        continue;
      }
      if (ErrorInfo* error = ReadOn()) return error;
      if (openTags.empty()) return nullptr;
    }
  }

private:
  // One line inside the innermost open tag: its end, a nested tag, or its text line.
  ErrorInfo* ReadOn() {
    XMLTag* open = openTags.back();
    const View name = XMLTagAccess::Name(*open).View();
    if (!lines.HasNext()) return Fail(message::badlyFormedData);
    lines.Advance();
    const Line& line = lines.Current();
    if (line.HasEndTag(name)) {
      openTags.pop_back();
      if (open != &top) Attach(open);
      return nullptr;
    }
    if (line.marks.firstOpen != none) {
      starting = XMLTagAccess::Make(open);
      return nullptr;
    }
    // A text line is the tag's value and must stand directly before the end tag.
    XMLTagAccess::Value(*open) = line.text;
    if (!lines.HasNext()) return Fail(message::badlyFormedData);
    if (!lines.Next().HasEndTag(name)) return Fail(message::missingEndTag);
    return nullptr;
  }

  static void Attach(XMLTag* tag) {
    SVArray<XMLTag*>& siblings = XMLTagAccess::NestedTags(*XMLTagAccess::Parent(*tag));
    // Lists the reader fills grow by 18; set when the first entry comes, so that tags without
    // nested tags get no list body at all.
    if (siblings.Size() == 0) siblings.SetCapacityIncrease(18);
    siblings.Add(tag);
  }

  XMLTag& top;
  DocumentLines& lines;
  XMLTag* starting = nullptr;    // the tag whose start line is at the cursor; not yet attached
  std::vector<XMLTag*> openTags; // tags read over several lines, outermost first; all but the
                                 // top tag not yet attached
};

// Checks the prolog and reads the top tag from the line behind it.
ErrorInfo* ParseLines(XMLTag& top, DocumentLines& lines) {
  if (!lines.Advance() || !lines.HasNext()) return Fail(message::emptyData);
  if (!Contains(lines.Current().text.View(), u"xml version=\"1.0\"")) return Fail(message::unrecognisedVersion);
  lines.Advance();
  TreeReader reader(top, lines);
  return reader.Run();
}

} // namespace

ErrorInfo* XML::ReadText(String text) {
  try {
    topTag->Remove();
    TextLines source(std::move(text));
    DocumentLines lines(source);
    return ParseLines(*topTag, lines);
  } catch (...) {
    return Fail(message::unknownException);
  }
}

ErrorInfo* XML::ReadFile(String path) {
  topTag->Remove();
  LineParsableFile file(std::move(path));
  if (ErrorInfo* error = file.Open()) return error;

  FileLines source(file);
  DocumentLines lines(source);
  const String oldName = XMLTagAccess::Name(*topTag);
  const String oldValue = XMLTagAccess::Value(*topTag);
  std::unique_ptr<ErrorInfo> result;
  try {
    result.reset(ParseLines(*topTag, lines));
  } catch (...) {
    if (source.Threw()) throw; // the file layer's own exceptions are not the parser's to turn
    result.reset(Fail(message::unknownException));
  }
  // A read error anywhere in the file wins over whatever the lines said, and leaves the document
  // as cleared before reading; so the file is read to its end even after the top tag is complete.
  source.Drain();
  if (ErrorInfo* readError = source.TakeError()) {
    topTag->Remove();
    XMLTagAccess::Name(*topTag) = oldName;
    XMLTagAccess::Value(*topTag) = oldValue;
    return readError;
  }
  return result.release();
}

} // namespace QOR
