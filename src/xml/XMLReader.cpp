// The reader of the line dialect: ReadText and ReadFile.
//
// Lines are taken from the text or the file one at a time, with one line of look-ahead, in place:
// a String's units, or a UTF-8 file's bytes in a buffer of blocks (a UTF-16 file goes through the
// file layer, a line at a time). No copy of the whole document is ever held. A line's end and the
// markers that steer the reading are found in one pass over its bytes, a block of them at a time,
// and only what the tree keeps is copied into the document's storage: names once each, values
// decoded to units or, when they are ASCII and two-byte UTF-8, kept as their bytes. Empty lines
// and lines holding "!--" are skipped as they come. Tags are read in a loop with the open tags on
// a heap stack, so any depth reads in constant stack, and every step is linear in the length of
// its line.
#include <qorxmlu/foundation/LineParsableFile.h>
#include <qorxmlu/xml/XML.h>

#include "xml/XMLTagAccess.h"

#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/ReadableFile.h>

#include "foundation/Simd.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>


#if defined(__GNUC__)
#define QORXMLU_ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define QORXMLU_ALWAYS_INLINE inline
#endif
// Lines are classified with AVX2 where the processor has it, chosen when the program runs.
#if defined(QORXMLU_HAVE_SSE2) && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define QORXMLU_SCAN_AVX2 1
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

// The document is read in one of two unit types: 16-bit units (a String, or a UTF-16 file) or
// the UTF-8 bytes of a file, undecoded. Every character that steers the reading is ASCII, and in
// UTF-8 an ASCII byte always decodes to itself alone, even next to bad bytes; so the steering
// characters stand in the same order and next to the same kinds of neighbours in the bytes as in
// the units, and a text cut out at them decodes to the units cut out at them. Only what the tree
// keeps is decoded.
template <class Char>
using TextOf = std::basic_string_view<Char>;

// The characters that String::TrimAll and TrimLeft remove.
template <class Char>
bool IsBlank(Char c) {
  constexpr std::uint64_t blanks = 1ull << ' ' | 1ull << '\t' | 1ull << '\r' | 1ull << '\n' | 1ull << '\v' | 1ull << '\f';
  return static_cast<std::make_unsigned_t<Char>>(c) <= ' ' && (blanks >> static_cast<unsigned>(c) & 1) != 0;
}

template <class Char>
TextOf<Char> TrimLeft(TextOf<Char> text) {
  std::size_t start = 0;
  while (start < text.size() && IsBlank(text[start])) ++start;
  return text.substr(start);
}


// The position of the first "<", ">" or "!" in the text, or its length; eight units at a time
// where the processor allows.
std::size_t NextMarker(const char16_t* text, std::size_t length) {
  std::size_t at = 0;
#if defined(QORXMLU_HAVE_SSE2)
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

// Where the characters that steer the reading stand in a line. Blanks at the ends of a line never
// hold them, so the positions serve the trimmed line too.
struct LineMarks {
  std::size_t firstOpen = none;    // "<"
  std::size_t firstEndOpen = none; // "</"
  bool moreEndOpens = false;       // a second "</"
  std::size_t firstClose = none;   // ">"
  bool emptyTagEnd = false;        // "/>" somewhere
  bool comment = false;            // "!--" somewhere

  // Takes in the marker at i of text, a line of length units; false once the line is a comment,
  // when the later markers no longer matter.
  template <class Char>
  bool Take(const Char* text, std::size_t length, std::size_t i) {
    const Char c = text[i];
    if (c == '<') {
      if (firstOpen == none) firstOpen = i;
      if (i + 1 < length && text[i + 1] == '/') {
        if (firstEndOpen == none) firstEndOpen = i;
        else moreEndOpens = true;
      }
    } else if (c == '>') {
      if (firstClose == none) firstClose = i;
      if (i > 0 && text[i - 1] == '/') emptyTagEnd = true;
    } else if (i + 2 < length && text[i + 1] == '-' && text[i + 2] == '-') {
      comment = true;
      return false;
    }
    return true;
  }

  // All marks of a line of 16-bit units in one pass.
  explicit LineMarks(View line) {
    const char16_t* text = line.data();
    const std::size_t length = line.size();
    for (std::size_t i = NextMarker(text, length); i < length; i += 1 + NextMarker(text + i + 1, length - i - 1)) {
      if (!Take(text, length, i)) return;
    }
  }
  LineMarks() = default;
};

template <class Char>
struct Line {
  const Char* text = nullptr;
  std::size_t length = 0;
  LineMarks marks;

  TextOf<Char> Text() const { return {text, length}; }
};

// Whether the units that follow "</" at text, up to the next ">", are the name. A name that the
// reader gave a tag never holds ">".
bool EndTagNameAt(TextOf<char16_t> rest, View name) {
  return name.size() < rest.size() && rest[name.size()] == u'>' && rest.compare(0, name.size(), name) == 0;
}

bool EndTagNameAt(TextOf<char> rest, View name) {
  // Mostly the end tag of an ASCII name, or another name that differs early.
  std::size_t same = 0;
  while (same < name.size() && same < rest.size() && rest[same] == name[same] && name[same] < 0x80) ++same;
  if (same == name.size() && same < rest.size() && rest[same] == '>') return true;
  if (same < rest.size() && static_cast<unsigned char>(rest[same]) < 0x80 && same < name.size() && name[same] < 0x80)
    return false; // an ASCII character differs, before any other: so do the units
  const std::size_t close = rest.find('>');
  if (close == none || close < name.size()) return false; // no byte decodes to more than one unit
  const TextOf<char> bytes = rest.substr(0, close);
  std::size_t i = 0;
  if (bytes.size() == name.size()) {
    while (i < bytes.size() && bytes[i] == name[i] && name[i] < 0x80) ++i;
    if (i == bytes.size()) return true;
    if (static_cast<unsigned char>(bytes[i]) < 0x80) return false;
  } else {
    while (i < bytes.size() && static_cast<unsigned char>(bytes[i]) < 0x80) ++i;
    if (i == bytes.size()) return false; // ASCII of another length
  }
  // Other characters than ASCII: decode and compare.
  std::u16string units(bytes.size(), u'\0');
  units.resize(DecodeUtf8Units(bytes.data(), bytes.size(), units.data()));
  return View(units) == name;
}

// Whether "</", name and ">" stand in the line; from is the first "</" of the line, and the rest
// is searched only when the line holds more.
template <class Char>
bool ContainsEndTag(TextOf<Char> line, std::size_t from, bool more, View name) {
  if (EndTagNameAt(line.substr(from + 2), name)) return true;
  if (!more) return false;
  constexpr Char endOpen[] = {'<', '/'};
  for (std::size_t at = line.find(TextOf<Char>(endOpen, 2), from + 2); at != none;
       at = line.find(TextOf<Char>(endOpen, 2), at + 2)) {
    if (EndTagNameAt(line.substr(at + 2), name)) return true;
  }
  return false;
}

template <class Char>
bool HasEndTag(const Line<Char>& line, View name) {
  return line.marks.firstEndOpen != none &&
         ContainsEndTag(line.Text(), line.marks.firstEndOpen, line.marks.moreEndOpens, name);
}

// ---- where the lines come from ------------------------------------------------------------
// A source puts the next raw line, without its line end and with its marks, into line and says
// false at the end. The units of the line given as kept must stay readable (a source may move
// them, and then moves the line's text pointer along).

// The lines of a String, in place.
class TextLines {
public:
  explicit TextLines(View text) : text(text) {}
  bool Next(Line<char16_t>& line, Line<char16_t>*) {
    if (position >= text.size()) return false;
    std::size_t stop = text.find(u'\n', position);
    if (stop == none) stop = text.size();
    const std::size_t next = stop + 1;
    if (stop > position && text[stop - 1] == u'\r') --stop;
    line.text = text.data() + position;
    line.length = stop - position;
    line.marks = LineMarks(line.Text());
    position = next;
    return true;
  }

private:
  View text;
  std::size_t position = 0;
};

// The lines of a UTF-16 file, decoded one at a time by the file layer into two Strings in turn.
// A read error ends the lines and is kept for the caller; an exception from the file layer is
// marked, so that it can pass to the caller unchanged.
class Utf16FileLines {
public:
  explicit Utf16FileLines(LineParsableFile& file) : file(file) {}
  ~Utf16FileLines() { delete error; }

  bool Next(Line<char16_t>& line, Line<char16_t>* kept) {
    if (error || ended) return false;
    String& room = kept && kept->text == slots[0].View().data() && kept->length ? slots[1] : slots[0];
    try {
      ended = file.NextLine(room, error, 0) == 0;
    } catch (...) {
      threw = true;
      throw;
    }
    if (ended || error) return false;
    line.text = room.View().data();
    line.length = room.Len();
    line.marks = LineMarks(line.Text());
    return true;
  }

  // Reads what is left of the file, for its errors only.
  void Drain() {
    Line<char16_t> line;
    while (Next(line, nullptr)) {
    }
  }

  bool Threw() const { return threw; }
  ErrorInfo* TakeError() { return std::exchange(error, nullptr); }

private:
  LineParsableFile& file;
  String slots[2];
  ErrorInfo* error = nullptr;
  bool ended = false;
  bool threw = false;
};

// The lines of a UTF-8 file as bytes, read in blocks into one buffer. The line end and the
// markers of a line are found in one pass, sixteen bytes at a time where the processor allows.
class Utf8FileLines {
public:
  explicit Utf8FileLines(ReadableFile& file) : file(file) {}
  Utf8FileLines(const Utf8FileLines&) = delete;
  Utf8FileLines& operator=(const Utf8FileLines&) = delete;
  ~Utf8FileLines() { delete error; }

  // Reads the first bytes: false, with the file still at its start, when a byte order mark says
  // UTF-16. An EF BB BF mark is passed over.
  bool Start() {
    while (!atEnd && !error && end < 3) Refill(nullptr);
    const auto* b = reinterpret_cast<const unsigned char*>(buffer.get());
    if (end >= 2 && ((b[0] == 0xFF && b[1] == 0xFE) || (b[0] == 0xFE && b[1] == 0xFF))) return false;
    if (end >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) begin = 3;
    return true;
  }

  bool Next(Line<char>& line, Line<char>* kept) {
    for (;;) {
      if (error) return false;
      if (Scan(line)) return true;
      if (atEnd) {
        if (begin >= end) return false; // a final line end makes no extra empty line
        // The last line has no line end; the scan saw all its markers.
        const char* text = buffer.get() + begin;
        std::size_t length = end - begin;
        if (text[length - 1] == '\r') --length;
        line.text = text;
        line.length = length;
        begin = end;
        return true;
      }
      Refill(kept);
    }
  }

  void Drain() {
    while (!atEnd && !error) {
      begin = end;
      Refill(nullptr);
    }
  }

  bool Threw() const { return threw; }
  ErrorInfo* TakeError() { return std::exchange(error, nullptr); }

private:
  static constexpr std::size_t blockSize = 256 * 1024;
  static constexpr std::size_t padding = 128; // zero bytes behind the data, for whole windows of 64

  // Where the bytes that matter stand in up to 64 bytes, one bit each: taken sixteen bytes at a
  // time up to the block that holds a line end. The dashes, which matter only behind a "!", are
  // looked for only where one is.
  struct Classes {
    std::uint64_t lineEnd = 0, open = 0, close = 0, bang = 0, slash = 0;

    explicit Classes(const char* bytes) {
#if defined(QORXMLU_HAVE_SSE2)
      const __m128i newline = _mm_set1_epi8('\n'), lt = _mm_set1_epi8('<'), gt = _mm_set1_epi8('>'),
                    exclamation = _mm_set1_epi8('!'), solidus = _mm_set1_epi8('/');
      for (int block = 0; block < 4 && !lineEnd; ++block) {
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + 16 * block));
        auto bits = [&](__m128i pattern) {
          return std::uint64_t(static_cast<std::uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, pattern))))
                 << (16 * block);
        };
        lineEnd |= bits(newline);
        open |= bits(lt);
        close |= bits(gt);
        bang |= bits(exclamation);
        slash |= bits(solidus);
      }
#else
      for (int i = 0; i < 64; ++i) {
        const std::uint64_t bit = std::uint64_t(1) << i;
        switch (bytes[i]) {
        case '\n': lineEnd |= bit; break;
        case '<': open |= bit; break;
        case '>': close |= bit; break;
        case '!': bang |= bit; break;
        case '/': slash |= bit; break;
        default: break;
        }
        if (lineEnd) break;
      }
#endif
    }
  };

  // Whether a "!" of the bits is followed by "--" (bytes may be read up to 66 past the window).
  static bool CommentAt(const char* window, std::uint64_t bangs) {
    for (; bangs; bangs &= bangs - 1) {
      const char* bang = window + std::countr_zero(bangs);
      if (bang[1] == '-' && bang[2] == '-') return true;
    }
    return false;
  }

  // The line at begin if its line end is in the buffer; its marks go to line.marks either way.
  // The line is taken 64 bytes at a time, and its marks follow from the bits of those bytes with
  // no branch per marker. Bytes beyond the data are zeros (the padding), which match nothing.
  template <class Classify>
  QORXMLU_ALWAYS_INLINE bool ScanWith(Line<char>& line) {
    const char* const text = buffer.get() + begin;
    const char* const stop = buffer.get() + end;
    LineMarks marks;
    const char* lineEnd = nullptr;
    std::uint64_t slashBefore = 0; // the byte before the window is "/" (of the same line)
    for (const char* window = text; window < stop; window += 64) {
      const Classify c(window);
      const auto at = [&](std::uint64_t bits) {
        return static_cast<std::size_t>(window - text) + static_cast<std::size_t>(std::countr_zero(bits));
      };
      const std::uint64_t inLine = c.lineEnd ? (c.lineEnd & (0 - c.lineEnd)) - 1 : ~std::uint64_t(0);
      const std::uint64_t open = c.open & inLine, close = c.close & inLine;
      // A "<" in the last byte has its neighbour in the byte after the window. (A window that
      // holds the line end holds every neighbour of the line's markers: at worst the line end.)
      const std::uint64_t slashAfter = c.slash >> 1 | std::uint64_t(window[64] == '/') << 63;
      if (open && marks.firstOpen == none) marks.firstOpen = at(open);
      if (const std::uint64_t endOpens = open & slashAfter) {
        if (marks.firstEndOpen == none) marks.firstEndOpen = at(endOpens);
        else marks.moreEndOpens = true;
        if (endOpens & (endOpens - 1)) marks.moreEndOpens = true;
      }
      if (close && marks.firstClose == none) marks.firstClose = at(close);
      if (close & (c.slash << 1 | slashBefore)) marks.emptyTagEnd = true;
      if ((c.bang & inLine) && CommentAt(window, c.bang & inLine)) marks.comment = true;
      slashBefore = c.slash >> 63;
      if (c.lineEnd) {
        lineEnd = window + std::countr_zero(c.lineEnd);
        break;
      }
    }
    line.marks = marks;
    if (!lineEnd) return false;
    std::size_t length = static_cast<std::size_t>(lineEnd - text);
    begin += length + 1;
    if (length > 0 && text[length - 1] == '\r') --length;
    line.text = text;
    line.length = length;
    return true;
  }

#if defined(QORXMLU_SCAN_AVX2)
  // The same classes from two loads of 32 bytes, where the processor has AVX2.
  struct Classes32 {
    std::uint64_t lineEnd = 0, open = 0, close = 0, bang = 0, slash = 0;

    __attribute__((target("avx2"))) explicit Classes32(const char* bytes) {
      for (int half = 0; half < 2 && !lineEnd; ++half) {
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + 32 * half));
        const int shift = 32 * half;
        lineEnd |= Bits(b, '\n', shift);
        open |= Bits(b, '<', shift);
        close |= Bits(b, '>', shift);
        bang |= Bits(b, '!', shift);
        slash |= Bits(b, '/', shift);
      }
    }
    __attribute__((target("avx2"))) static std::uint64_t Bits(__m256i bytes, char c, int shift) {
      const __m256i hits = _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(c));
      return std::uint64_t(static_cast<std::uint32_t>(_mm256_movemask_epi8(hits))) << shift;
    }
  };
  __attribute__((target("avx2"))) bool ScanAvx2(Line<char>& line) { return ScanWith<Classes32>(line); }
#endif
  bool Scan(Line<char>& line) {
#if defined(QORXMLU_SCAN_AVX2)
    // QORXMLU_NO_AVX2 keeps the sixteen-byte scan, so that the tests run it on any processor.
    static const bool avx2 = __builtin_cpu_supports("avx2") && !std::getenv("QORXMLU_NO_AVX2");
    if (avx2) return ScanAvx2(line);
#endif
    return ScanWith<Classes>(line);
  }

  // Moves the unread bytes and the kept line to the front and reads the next block.
  void Refill(Line<char>* kept) {
    std::size_t from = begin;
    if (kept && kept->text) from = std::min(from, static_cast<std::size_t>(kept->text - buffer.get()));
    const std::size_t keep = end - from;
    if (!buffer || capacity - keep < blockSize / 2 + padding) {
      const std::size_t grown = std::max(blockSize, 2 * (keep + blockSize / 2)) + padding;
      std::unique_ptr<char[]> bigger(new char[grown]);
      if (keep) std::memcpy(bigger.get(), buffer.get() + from, keep);
      if (kept && kept->text) kept->text = bigger.get() + (kept->text - (buffer.get() + from));
      buffer = std::move(bigger);
      capacity = grown;
    } else if (from > 0) {
      std::memmove(buffer.get(), buffer.get() + from, keep);
      if (kept && kept->text) kept->text -= from;
    }
    begin -= from;
    end = keep;
    std::size_t got = 0;
    try {
      error = file.ReadFile(buffer.get() + end, capacity - padding - end, &got);
    } catch (...) {
      threw = true;
      throw;
    }
    end += got;
    atEnd = got == 0 && !error;
    std::memset(buffer.get() + end, 0, padding);
  }

  ReadableFile& file;
  std::unique_ptr<char[]> buffer;
  std::size_t capacity = 0; // of buffer, the padding included
  std::size_t begin = 0;    // the first byte not yet handed out in a line
  std::size_t end = 0;      // behind the last byte read
  bool atEnd = false;
  bool threw = false;
  ErrorInfo* error = nullptr;
};

// The document's lines without empty and comment lines, read one ahead of the current one.
template <class Char, class Source>
class DocumentLines {
public:
  explicit DocumentLines(Source& source) : source(source) {}

  // Moves to the next line; false when there is none.
  bool Advance() {
    if (!nextKnown) hasNext = Fetch();
    nextKnown = false;
    if (!hasNext) return false;
    currentSlot = 1 - currentSlot;
    return true;
  }
  const Line<Char>& Current() const { return slots[currentSlot]; }
  // Whether a line follows the current one.
  bool HasNext() {
    if (!nextKnown) {
      hasNext = Fetch();
      nextKnown = true;
    }
    return hasNext;
  }
  // The line after the current one; HasNext() must have said there is one.
  const Line<Char>& Next() const { return slots[1 - currentSlot]; }

private:
  bool Fetch() {
    Line<Char>& line = slots[1 - currentSlot];
    while (source.Next(line, &slots[currentSlot])) {
      if (line.length == 0 || line.marks.comment) continue;
      return true;
    }
    return false;
  }

  Source& source;
  Line<Char> slots[2]; // the current line and the one after it take turns
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

  // A tag's value.
  template <class Char>
  void SetText(const XMLTag& tag, TagText& field, TextOf<Char> text) {
    if (&tag == &top) Own(field, text);
    else KeepValue(field, text);
  }
  // A tag's name: names repeat, so tags of the same name share one copy of it.
  template <class Char>
  void SetName(const XMLTag& tag, TagText& field, TextOf<Char> text) {
    if (&tag == &top) Own(field, text);
    else field.Borrow(KeepName(text));
  }

  // Gives the tag the attributes gathered in pairs (name, value, name, value, ...).
  template <class Char>
  void SetAttributes(XMLTag& tag, const std::vector<TextOf<Char>>& pairs) {
    const std::size_t count = pairs.size() / 2;
    if (count == 0) return;
    const bool isTop = &tag == &top;
    XMLAttrBlock* block = isTop ? XMLAttrBlock::Create(count) : XMLAttrBlock::Create(texts, count);
    XMLTagAccess::SetAttributes(tag, block);
    for (std::size_t i = 0; i < count; ++i) {
      XMLAttrEntry& entry = block->Append();
      if (isTop) {
        Own(entry.name, pairs[2 * i]);
        Own(entry.value, pairs[2 * i + 1]);
      } else {
        entry.name.Borrow(KeepName(pairs[2 * i]));
        KeepValue(entry.value, pairs[2 * i + 1]);
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
  static void Own(TagText& field, TextOf<char16_t> text) { field.Assign(text); }
  static void Own(TagText& field, TextOf<char> text) {
    std::u16string units(text.size(), u'\0');
    units.resize(DecodeUtf8Units(text.data(), text.size(), units.data()));
    field.Assign(units);
  }
  // Names repeat: a name is kept once while a small table of recent names holds it, and shared
  // by the tags and attributes that have it (kept texts never change). Short attribute values
  // repeat too, but as many do not, and looking them up cost more time than it saved room. A
  // table slot is found from the length and three characters. Over bytes, the first eight are
  // compared at once (the line buffer may be read past a text), and a text of up to eight bytes
  // matches on them alone; a longer one is kept in the table only when it is ASCII, so that its
  // bytes and units compare alike.
  struct SharedSlot {
    View kept;
    std::uint64_t head = 0;   // the first eight bytes the text was kept from (bytes only)
    std::size_t length = 0;   // in bytes or units, as read
  };
  template <class Char>
  View KeepName(TextOf<Char> text) {
    const std::size_t length = text.size();
    if (length == 0 || length > 64) return Kept(text);
    using Unit = std::make_unsigned_t<Char>;
    const auto first = static_cast<Unit>(text[0]), last = static_cast<Unit>(text[length - 1]),
               middle = static_cast<Unit>(text[length / 2]);
    SharedSlot& slot = names[(length * 31 + first * 7 + middle * 13 + last) % nameSlots];
    const std::uint64_t head = Head(text);
    if (slot.length == length && slot.head == head && slot.kept.data()) {
      std::size_t i = sizeof(Char) == 1 ? std::min<std::size_t>(length, 8) : 0;
      while (i < length && static_cast<Unit>(text[i]) == slot.kept[i]) ++i;
      if (i == length) return slot.kept;
    }
    const View kept = Kept(text);
    if (sizeof(Char) == 1 && length > 8) {
      std::size_t i = 0;
      while (i < kept.size() && kept[i] < 0x80) ++i;
      if (i != length) return kept;
    }
    slot = {kept, head, length};
    return kept;
  }
  static std::uint64_t Head(TextOf<char16_t>) { return 0; }
  static std::uint64_t Head(TextOf<char> text) {
    std::uint64_t head;
    std::memcpy(&head, text.data(), sizeof head);
    return text.size() >= 8 ? head : head & ((std::uint64_t(1) << (8 * text.size())) - 1);
  }
  // A value from a file's bytes stays in them when it is of the form a TagText may hold as bytes.
  void KeepValue(TagText& field, TextOf<char16_t> text) { field.Borrow(texts.Keep(text)); }
  void KeepValue(TagText& field, TextOf<char> text) {
    std::string_view bytes;
    if (texts.KeepTwoByteUtf8(text.data(), text.size(), true, bytes)) field.BorrowUtf8(bytes);
    else field.Borrow(Kept(text));
  }
  View Kept(TextOf<char16_t> text) { return texts.Keep(text); }
  // The bytes of a file's texts lie in its line buffer, which may be read past a text.
  View Kept(TextOf<char> text) { return texts.KeepUtf8(text.data(), text.size(), true); }

  static constexpr std::size_t nameSlots = 256;
  SharedSlot names[nameSlots];

  XMLTag& top;
  XMLArena& tags;
  XMLArena& texts;
};

// The text between "<" and ">" of a start line, searched for the next character of a kind at or
// after a position (the end if there is none): unit by unit over 16-bit units; over bytes, on bits
// found sixteen bytes at a time.
template <class Char>
class AttributeText;

// The searches one unit at a time.
template <>
class AttributeText<void> {
public:
  template <class Char>
  static std::size_t NameEnd(TextOf<Char> inner, std::size_t i) { // "=" or "/"
    while (i < inner.size() && inner[i] != '=' && inner[i] != '/') ++i;
    return i;
  }
  template <class Char>
  static std::size_t ValueStart(TextOf<Char> inner, std::size_t i) { // a quote or "/"
    while (i < inner.size() && inner[i] != '"' && inner[i] != '\'' && inner[i] != '/') ++i;
    return i;
  }
  template <class Char>
  static std::size_t ValueEnd(TextOf<Char> inner, std::size_t i, Char quote) { // the quote or "/"
    while (i < inner.size() && inner[i] != quote && inner[i] != '/') ++i;
    return i;
  }
  template <class Char>
  static std::size_t TagNameEnd(TextOf<Char> inner) { // a blank or tab
    std::size_t i = 0;
    while (i < inner.size() && inner[i] != ' ' && inner[i] != '\t') ++i;
    return i;
  }
};

template <class Char>
class AttributeText {
public:
  explicit AttributeText(TextOf<Char> inner) : inner(inner) {}
  std::size_t NameEnd(std::size_t i) const { return AttributeText<void>::NameEnd(inner, i); }
  std::size_t ValueStart(std::size_t i) const { return AttributeText<void>::ValueStart(inner, i); }
  std::size_t ValueEnd(std::size_t i, Char quote) const { return AttributeText<void>::ValueEnd(inner, i, quote); }
  std::size_t TagNameEnd() const { return AttributeText<void>::TagNameEnd(inner); }

private:
  TextOf<Char> inner;
};

#if defined(QORXMLU_HAVE_SSE2)
template <>
class AttributeText<char> {
public:
  // The bytes up to 15 past the text must be readable (the line buffer's padding). A text longer
  // than the bits hold is searched byte by byte.
  explicit AttributeText(TextOf<char> inner) : inner(inner), length(inner.size()) {
    if (length > 64 * maxWords) return;
    const __m128i equals = _mm_set1_epi8('='), solidus = _mm_set1_epi8('/'), doubleQuote = _mm_set1_epi8('"'),
                  singleQuote = _mm_set1_epi8('\''), blank = _mm_set1_epi8(' '), tab = _mm_set1_epi8('\t');
    for (std::size_t at = 0; at < length; at += 16) {
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(inner.data() + at));
      const __m128i slash = _mm_cmpeq_epi8(b, solidus), dq = _mm_cmpeq_epi8(b, doubleQuote),
                    sq = _mm_cmpeq_epi8(b, singleQuote);
      const std::size_t word = at / 64;
      const unsigned shift = at % 64;
      auto put = [&](int kind, __m128i hits) {
        const std::uint64_t found = std::uint64_t(static_cast<std::uint16_t>(_mm_movemask_epi8(hits))) << shift;
        bits[kind][word] = shift ? bits[kind][word] | found : found;
      };
      put(0, _mm_or_si128(_mm_cmpeq_epi8(b, equals), slash));
      put(1, _mm_or_si128(_mm_or_si128(dq, sq), slash));
      put(2, _mm_or_si128(dq, slash));
      put(3, _mm_or_si128(sq, slash));
      put(4, _mm_or_si128(_mm_cmpeq_epi8(b, blank), _mm_cmpeq_epi8(b, tab)));
    }
  }
  std::size_t NameEnd(std::size_t i) const {
    if (length > 64 * maxWords) return AttributeText<void>::NameEnd(inner, i);
    return Find(0, i);
  }
  std::size_t ValueStart(std::size_t i) const {
    if (length > 64 * maxWords) return AttributeText<void>::ValueStart(inner, i);
    return Find(1, i);
  }
  std::size_t ValueEnd(std::size_t i, char quote) const {
    if (length > 64 * maxWords) return AttributeText<void>::ValueEnd(inner, i, quote);
    return Find(quote == '"' ? 2 : 3, i);
  }
  std::size_t TagNameEnd() const {
    if (length > 64 * maxWords) return AttributeText<void>::TagNameEnd(inner);
    return Find(4, 0);
  }

private:
  static constexpr std::size_t maxWords = 4;

  std::size_t Find(int kind, std::size_t i) const {
    if (i >= length) return length;
    if (length <= 64) { // mostly
      const std::uint64_t hits = bits[kind][0] & ~std::uint64_t(0) << i;
      return std::min(length, hits ? static_cast<std::size_t>(std::countr_zero(hits)) : length);
    }
    for (std::size_t word = i / 64; word * 64 < length; ++word) {
      std::uint64_t hits = bits[kind][word];
      if (word == i / 64) hits &= ~std::uint64_t(0) << (i % 64);
      if (hits) return std::min(length, word * 64 + static_cast<std::size_t>(std::countr_zero(hits)));
    }
    return length;
  }

  TextOf<char> inner;
  std::size_t length;
  // Per 64 bytes: "=" or "/"; a quote or "/"; '"' or "/"; "'" or "/"; a blank or tab.
  std::uint64_t bits[5][maxWords];
};
#endif

// The attributes of a start tag, from the text between "<" and ">" behind the name and one
// separator, gathered in pairs. A "/" ends the scan even inside quotes; a value opened and not
// closed, or an "=" with no quote behind it, is an error. Text with no "=" is passed over.
template <class Char>
ErrorInfo* ScanAttributes(TextOf<Char> inner, const AttributeText<Char>& text, std::size_t start,
                          std::vector<TextOf<Char>>& pairs) {
  const std::size_t length = inner.size();
  std::size_t i = start;
  for (;;) {
    const std::size_t nameStart = i;
    i = text.NameEnd(i);
    if (i >= length || inner[i] == '/') return nullptr;
    const TextOf<Char> attrName = TrimLeft(inner.substr(nameStart, i - nameStart));
    i = text.ValueStart(i + 1);
    if (i >= length || inner[i] == '/') return Fail(message::badlyFormedAttrValue);
    const Char quote = inner[i];
    const std::size_t valueStart = ++i;
    i = text.ValueEnd(i, quote);
    if (i >= length || inner[i] == '/') return Fail(message::badlyFormedAttrValue);
    pairs.push_back(attrName);
    pairs.push_back(inner.substr(valueStart, i - valueStart));
    ++i;
  }
}

// Reads the start line of a tag: name, attributes, and the value of a tag that ends on the same
// line. complete tells whether the tag ends there. pairs is room for the scan of the attributes.
template <class Char>
ErrorInfo* ReadStartLine(TreeStorage& storage, XMLTag& tag, const Line<Char>& rawLine, bool& complete,
                         std::vector<TextOf<Char>>& pairs) {
  // Blanks around the line never hold a marker, so the line is taken untrimmed: every text cut
  // out of it lies between markers, and the end tag ends at a ">".
  const LineMarks& marks = rawLine.marks;
  const TextOf<Char> line = rawLine.Text();
  const std::size_t start = marks.firstOpen;
  const std::size_t end = marks.firstEndOpen;
  const std::size_t close = marks.firstClose;
  if (start == none) return Fail(message::missingTagStart);
  if (end != none && end <= start) return Fail(message::badlyPlacedTagEnd);
  if (close == none || close < start) return Fail(message::badlyFormedData);
  const TextOf<Char> inner = line.substr(start + 1, close - start - 1);
  const AttributeText<Char> text(inner);
  const std::size_t nameLength = text.TagNameEnd();
  if (nameLength == 0) return Fail(message::badlyFormedName);
  storage.SetName(tag, XMLTagAccess::Name(tag), inner.substr(0, nameLength));
  pairs.clear();
  ErrorInfo* scanError = ScanAttributes(inner, text, nameLength + 1, pairs);
  // The attributes read before a failure stay with the tag.
  storage.SetAttributes(tag, pairs);
  if (scanError) return scanError;

  complete = true;
  if (marks.emptyTagEnd) return nullptr;
  if (end != none) {
    // One line: the first "</" must open this tag's own end tag.
    if (!EndTagNameAt(line.substr(end + 2), XMLTagAccess::Name(tag).View())) return Fail(message::badlyFormedEndTag);
    // In "<a </a>" the first ">" closes the end tag itself: there is no value then.
    storage.SetText(tag, XMLTagAccess::Value(tag), close < end ? line.substr(close + 1, end - close - 1) : TextOf<Char>());
    return nullptr;
  }
  complete = false;
  return nullptr;
}

// Builds the tree under the top tag from the line at the cursor on. A tag joins its parent's list
// only when it has been read completely; on failure the unfinished tags are destroyed.
template <class Char, class Source>
class TreeReader {
public:
  TreeReader(XMLTag& top, DocumentLines<Char, Source>& lines, TreeStorage& storage)
      : top(top), lines(lines), storage(storage) {}
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
    const Line<Char>& line = lines.Current();
    if (HasEndTag(line, name)) {
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
    storage.SetText(*open.tag, XMLTagAccess::Value(*open.tag), line.Text());
    if (!lines.HasNext()) return Fail(message::badlyFormedData);
    if (!HasEndTag(lines.Next(), name)) return Fail(message::missingEndTag);
    return nullptr;
  }

  XMLTag& top;
  DocumentLines<Char, Source>& lines;
  TreeStorage& storage;
  XMLTag* starting = nullptr;   // the tag whose start line is at the cursor; not yet attached
  std::vector<Open> openTags;   // tags read over several lines, outermost first
  std::vector<XMLTag*> finished; // tags read completely, not yet given to their open parent
  std::vector<TextOf<Char>> pairs; // the attribute scan's room, reused from tag to tag
};

// Checks the prolog and reads the top tag from the line behind it.
template <class Char, class Source>
ErrorInfo* ParseLines(XMLTag& top, Source& source, TreeStorage& storage) {
  DocumentLines<Char, Source> lines(source);
  if (!lines.Advance() || !lines.HasNext()) return Fail(message::emptyData);
  constexpr char versionText[] = "xml version=\"1.0\"";
  Char version[sizeof versionText - 1];
  std::copy(versionText, versionText + sizeof version / sizeof(Char), version);
  if (lines.Current().Text().find(TextOf<Char>(version, sizeof version / sizeof(Char))) == none)
    return Fail(message::unrecognisedVersion);
  lines.Advance();
  TreeReader<Char, Source> reader(top, lines, storage);
  return reader.Run();
}

// Reads a file through source (UTF-8 or UTF-16 lines) into the document's top tag.
// clear tells that a read error ended it: the caller then clears the document again.
template <class Char, class Source>
ErrorInfo* ReadFileLines(XMLTag& top, Source& source, TreeStorage& storage, bool& clear) {
  std::unique_ptr<ErrorInfo> result;
  try {
    result.reset(ParseLines<Char>(top, source, storage));
  } catch (...) {
    if (source.Threw()) throw; // the file layer's own exceptions are not the parser's to turn
    result.reset(Fail(message::unknownException));
  }
  // A read error anywhere in the file wins over whatever the lines said, and leaves the document
  // as cleared before reading; so the file is read to its end even after the top tag is complete.
  source.Drain();
  if (ErrorInfo* readError = source.TakeError()) {
    clear = true;
    return readError;
  }
  return result.release();
}

} // namespace

ErrorInfo* XML::ReadText(String text) {
  try {
    ClearTree();
    tagArena = XMLArena::Create();
    textArena = XMLArena::Create();
    TreeStorage storage(*topTag, *tagArena, *textArena);
    TextLines source(text.View());
    return ParseLines<char16_t>(*topTag, source, storage);
  } catch (...) {
    return Fail(message::unknownException);
  }
}

ErrorInfo* XML::ReadFile(String path) {
  ClearTree();
  ReadableFile file(path);
  if (ErrorInfo* error = file.Open()) return error;

  const String oldName = topTag->GetName();
  const String oldValue = topTag->GetValue();
  tagArena = XMLArena::Create();
  textArena = XMLArena::Create();
  TreeStorage storage(*topTag, *tagArena, *textArena);
  bool clear = false;
  std::unique_ptr<ErrorInfo> result;
  {
    Utf8FileLines bytes(file);
    bool utf8 = false;
    try {
      utf8 = bytes.Start();
    } catch (...) {
      if (bytes.Threw()) throw;
      return Fail(message::unknownException);
    }
    if (utf8) {
      result.reset(ReadFileLines<char>(*topTag, bytes, storage, clear));
    } else {
      // A byte order mark for UTF-16: the file layer decodes the lines.
      delete file.Close();
      LineParsableFile units(std::move(path));
      if (ErrorInfo* error = units.Open()) {
        result.reset(error);
        clear = true;
      } else {
        Utf16FileLines lines(units);
        result.reset(ReadFileLines<char16_t>(*topTag, lines, storage, clear));
      }
    }
  }
  if (clear) {
    ClearTree();
    XMLTagAccess::Name(*topTag).Assign(oldName.View());
    XMLTagAccess::Value(*topTag).Assign(oldValue.View());
  }
  return result.release();
}

} // namespace QOR
