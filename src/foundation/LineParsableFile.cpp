#include <qorxmlu/foundation/LineParsableFile.h>

#include <qorxmlu/foundation/Encoding.h>

#include <cstring>
#include <vector>

namespace QOR {

namespace {
constexpr std::size_t blockSize = 256 * 1024;
}

// Bytes read ahead of the lines handed out; a line is decoded only when it is complete, so a
// multi-byte sequence is never split.
struct LineParsableFile::Reader {
  enum class Encoding { Unknown, Utf8, Utf16LE, Utf16BE } encoding = Encoding::Unknown;
  std::vector<char> bytes = std::vector<char>(blockSize);
  std::size_t begin = 0;
  std::size_t end = 0;
  bool atEnd = false;

  std::size_t UnitSize() const { return encoding == Encoding::Utf8 ? 1 : 2; }

  // Where the next line end starts in [begin, end), or npos.
  std::size_t FindLineEnd() const {
    if (encoding == Encoding::Utf8) {
      const void* hit = std::memchr(bytes.data() + begin, '\n', end - begin);
      return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - bytes.data()) : npos;
    }
    for (std::size_t at = begin; at + 1 < end; at += 2) {
      if (Unit(at) == u'\n') return at;
    }
    return npos;
  }

  char16_t Unit(std::size_t at) const {
    auto low = static_cast<unsigned char>(bytes[at]);
    auto high = static_cast<unsigned char>(bytes[at + 1]);
    if (encoding == Encoding::Utf16BE) std::swap(low, high);
    return static_cast<char16_t>(low | (high << 8));
  }

  void Decode(std::size_t from, std::size_t to, String& line) const {
    std::u16string& units = line.Std();
    if (encoding == Encoding::Utf8) {
      units.resize(to - from);
      units.resize(DecodeUtf8Units(bytes.data() + from, to - from, units.data()));
      return;
    }
    units.clear();
    for (std::size_t at = from; at + 1 < to; at += 2) units += Unit(at);
  }

  bool IsCarriageReturn(std::size_t at) const {
    return encoding == Encoding::Utf8 ? bytes[at] == '\r' : Unit(at) == u'\r';
  }

  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
};

LineParsableFile::LineParsableFile(String path) : ReadableFile(std::move(path)) {}

LineParsableFile::~LineParsableFile() = default;

ErrorInfo* LineParsableFile::Open() {
  reader = std::make_unique<Reader>();
  return ReadableFile::Open();
}

int LineParsableFile::NextLine(String& line, ErrorInfo*& error, std::size_t maxLength) {
  if (!IsOpen() || !reader) {
    error = SafeConcat(error, FileError("Can't read unopened file", 0));
    return 0;
  }
  Reader& in = *reader;
  for (;;) {
    if (in.encoding != Reader::Encoding::Unknown) {
      std::size_t lineEnd = in.FindLineEnd();
      std::size_t next = lineEnd + in.UnitSize();
      if (lineEnd == Reader::npos && in.atEnd) {
        if (in.begin >= in.end) return 0; // a final line end makes no extra empty line
        lineEnd = next = in.end;
      }
      if (lineEnd != Reader::npos) {
        std::size_t stop = lineEnd;
        if (stop >= in.begin + in.UnitSize() && in.IsCarriageReturn(stop - in.UnitSize())) stop -= in.UnitSize();
        in.Decode(in.begin, stop, line);
        in.begin = next;
        if (maxLength && line.Len() > maxLength) break;
        return 1;
      }
      if (maxLength && in.end - in.begin > maxLength * 4 + 8) break;
    }
    if (ErrorInfo* failure = Refill()) {
      error = SafeConcat(error, failure);
      return 0;
    }
  }
  in.atEnd = true;
  in.begin = in.end;
  error = SafeConcat(error, FileError("Line too long in file", 0));
  return 0;
}

// Moves the unread bytes to the front, reads the next block, and on the first block takes the
// encoding from the byte order mark.
ErrorInfo* LineParsableFile::Refill() {
  Reader& in = *reader;
  if (in.atEnd) return nullptr;
  std::memmove(in.bytes.data(), in.bytes.data() + in.begin, in.end - in.begin);
  in.end -= in.begin;
  in.begin = 0;
  if (in.bytes.size() - in.end < blockSize / 2) in.bytes.resize(in.bytes.size() * 2);
  std::size_t got = 0;
  if (ErrorInfo* error = ReadFile(in.bytes.data() + in.end, in.bytes.size() - in.end, &got)) return error;
  in.end += got;
  in.atEnd = got == 0;
  if (in.encoding == Reader::Encoding::Unknown && (in.end >= 3 || in.atEnd)) TakeEncoding();
  return nullptr;
}

void LineParsableFile::TakeEncoding() {
  Reader& in = *reader;
  const auto* b = reinterpret_cast<const unsigned char*>(in.bytes.data());
  in.encoding = Reader::Encoding::Utf8;
  if (in.end >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    in.begin = 3;
  } else if (in.end >= 2 && b[0] == 0xFF && b[1] == 0xFE) {
    in.encoding = Reader::Encoding::Utf16LE;
    in.begin = 2;
  } else if (in.end >= 2 && b[0] == 0xFE && b[1] == 0xFF) {
    in.encoding = Reader::Encoding::Utf16BE;
    in.begin = 2;
  }
}

} // namespace QOR
