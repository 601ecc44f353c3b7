#include <qorxmlu/foundation/FormatableTextFile.h>

#include <qorxmlu/foundation/Encoding.h>

#include <vector>

namespace QOR {

namespace {
constexpr std::size_t chunkUnits = 32 * 1024;

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }

// The units of one chunk, never splitting a surrogate pair.
std::size_t ChunkLength(std::u16string_view rest) {
  if (rest.size() <= chunkUnits) return rest.size();
  return IsHighSurrogate(rest[chunkUnits - 1]) ? chunkUnits - 1 : chunkUnits;
}

std::size_t EncodeChunk(std::u16string_view chunk, BaseFile::BOM bom, char* out) {
  if (bom != BaseFile::UTF16LE) return EncodeUtf8Units(chunk.data(), chunk.size(), out);
  for (char16_t unit : chunk) {
    *out++ = static_cast<char>(unit & 0xFF);
    *out++ = static_cast<char>(unit >> 8);
  }
  return chunk.size() * 2;
}
} // namespace

ErrorInfo* FormatableTextFile::FlushFile(bool commit, BOM bom) {
  if (!IsOpen()) return FileError("Can't write unopened file", 0);
  if (Position() == 0 && bom != UTF8) {
    const char* mark = bom == UTF16LE ? "\xFF\xFE" : "\xEF\xBB\xBF";
    if (ErrorInfo* error = Write(mark, bom == UTF16LE ? 2 : 3)) return error;
  }
  // Encoded a chunk at a time, so a large text never exists twice.
  std::vector<char> bytes(chunkUnits * 3);
  std::u16string_view rest = text.View();
  while (!rest.empty()) {
    std::size_t length = ChunkLength(rest);
    std::size_t size = EncodeChunk(rest.substr(0, length), bom, bytes.data());
    if (ErrorInfo* error = Write(bytes.data(), size)) return error;
    rest.remove_prefix(length);
  }
  text.SetEmpty();
  return Flush(commit);
}

} // namespace QOR
