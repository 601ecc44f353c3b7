// The storage of tags and texts: arenas, attribute blocks, tag texts and nested-tag lists.
#include "xml/XMLStorage.h"

#include <qorxmlu/foundation/Encoding.h>

#include "foundation/Simd.h"
#include "platform/Platform.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>


namespace QOR::detail {

namespace {

// Chunks double from a size that suits a small reply up to one that keeps the count of chunks
// of a large document low.
constexpr std::size_t firstChunkSize = 16 * 1024;
constexpr std::size_t largestChunkSize = 1024 * 1024;

#if defined(QORXMLU_HAVE_SSE2)
// Widens sixteen bytes into sixteen units at out and returns the bits of the bytes that are no
// ASCII (the units from the first of them on are not meant to be kept).
inline unsigned WidenSixteen(const unsigned char* in, char16_t* out) {
  const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
  const __m128i zero = _mm_setzero_si128();
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(block, zero));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(block, zero));
  return static_cast<unsigned>(_mm_movemask_epi8(block));
}
#endif

void* AllocateOrThrow(std::size_t bytes) {
  void* room = std::malloc(bytes);
  if (!room) throw std::bad_alloc();
  return room;
}

// A large chunk of an arena is filled whole: the system makes its pages present at once.
constexpr std::size_t filledChunkSize = 1024 * 1024;

void* AllocateChunk(std::size_t bytes) {
  return bytes >= filledChunkSize ? platform::AllocateFilledBlock(bytes) : AllocateOrThrow(bytes);
}

void FreeChunk(void* chunk, std::size_t bytes) noexcept {
  if (bytes >= filledChunkSize) return platform::FreeFilledBlock(chunk, bytes);
  std::free(chunk);
}

} // namespace

// ---- XMLArena -----------------------------------------------------------------------------

struct XMLArena::Chunk {
  Chunk* previous;
  std::size_t size;
};

XMLArena* XMLArena::Create() { return new XMLArena; }

XMLArena::~XMLArena() {
  while (chunks) {
    Chunk* previous = chunks->previous;
    FreeChunk(chunks, chunks->size);
    chunks = previous;
  }
}

XMLArena* XMLArena::Share() noexcept {
  holders.fetch_add(1, std::memory_order_relaxed);
  return this;
}

void XMLArena::Release(XMLArena* arena) noexcept {
  if (arena && arena->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete arena;
}

void* XMLArena::AllocateInNewChunk(std::size_t bytes) {
  const std::size_t size = nextChunkSize == 0 ? firstChunkSize : std::min(nextChunkSize * 2, largestChunkSize);
  if (bytes > (size - sizeof(Chunk)) / 2) {
    // A large block gets a chunk of its own; the current chunk stays in use.
    if (bytes > std::numeric_limits<std::size_t>::max() - sizeof(Chunk)) throw std::bad_alloc();
    auto* own = static_cast<Chunk*>(AllocateChunk(sizeof(Chunk) + bytes));
    own->size = sizeof(Chunk) + bytes;
    own->previous = chunks ? chunks->previous : nullptr;
    if (chunks) chunks->previous = own;
    else chunks = own;
    return own + 1;
  }
  nextChunkSize = size;
  auto* chunk = static_cast<Chunk*>(AllocateChunk(nextChunkSize));
  chunk->previous = chunks;
  chunk->size = nextChunkSize;
  chunks = chunk;
  next = reinterpret_cast<char*>(chunk + 1) + bytes;
  end = reinterpret_cast<char*>(chunk) + nextChunkSize;
  return chunk + 1;
}

std::u16string_view XMLArena::Keep(std::u16string_view text) {
  if (text.empty()) return {};
  if (text.size() > TagText::maxLength) throw std::bad_alloc();
  auto* units = static_cast<char16_t*>(Allocate(text.size() * sizeof(char16_t), alignof(char16_t)));
  std::memcpy(units, text.data(), text.size() * sizeof(char16_t));
  return {units, text.size()};
}

std::u16string_view XMLArena::KeepUtf8(const char* bytes, std::size_t length, bool readAhead) {
  if (length == 0) return {};
  // No byte decodes to more than one unit: room for as many units as bytes, and what decoding
  // leaves over goes back when it is at the end of the chunk.
  if (length > TagText::maxLength) throw std::bad_alloc(); // the units could be as many
  auto* units = static_cast<char16_t*>(Allocate(length * sizeof(char16_t), alignof(char16_t)));
  // Units may be written past the text's room only into the rest of the current chunk, which a
  // large text does not lie in.
  const std::ptrdiff_t roomBehind = reinterpret_cast<char*>(units + length) == next ? end - next : 0;
  // ASCII in blocks of sixteen and two-byte sequences inline; the rest from the first longer or
  // bad sequence on as the decoder does it.
  const auto* in = reinterpret_cast<const unsigned char*>(bytes);
  std::size_t count = 0;
  std::size_t at = 0;
#if defined(QORXMLU_HAVE_SSE2)
  // A short text whole in one block when the block may be read and written: sixteen units fit
  // behind the text's room in the chunk.
  if (length < 16 && readAhead && roomBehind >= static_cast<std::ptrdiff_t>((16 - length) * sizeof(char16_t))) {
    const unsigned high = WidenSixteen(in, units) | 1u << length;
    at = count = static_cast<std::size_t>(std::countr_zero(high));
  }
#endif
  while (at < length) {
#if defined(QORXMLU_HAVE_SSE2)
    if (length - at >= 16) {
      // Units never run ahead of bytes, so sixteen units stay inside the room.
      const unsigned high = WidenSixteen(in + at, units + count);
      if (high == 0) {
        at += 16;
        count += 16;
        continue;
      }
      const auto ascii = static_cast<std::size_t>(std::countr_zero(high));
      at += ascii;
      count += ascii;
    }
#endif
    const unsigned lead = in[at];
    if (lead < 0x80) {
      units[count++] = static_cast<char16_t>(lead);
      ++at;
    } else if (lead >= 0xC2 && lead < 0xE0 && at + 1 < length && (in[at + 1] & 0xC0) == 0x80) {
      units[count++] = static_cast<char16_t>((lead & 0x1F) << 6 | (in[at + 1] & 0x3F));
      at += 2;
    } else {
      count += DecodeUtf8Units(bytes + at, length - at, units + count);
      break;
    }
  }
  if (reinterpret_cast<char*>(units + length) == next) next = reinterpret_cast<char*>(units + count);
  return {units, count};
}

bool XMLArena::KeepTwoByteUtf8(const char* bytes, std::size_t length, bool readAhead, std::string_view& kept) {
  kept = {};
  if (length == 0) return true;
  if (length > TagText::maxLength) throw std::bad_alloc();
  auto* copy = static_cast<char*>(Allocate(length, 1));
  // Copied while checked, sixteen bytes at a time where they may be read (and written: past the
  // copy only with room left in the current chunk, which a large copy does not lie in).
  const std::ptrdiff_t roomBehind = copy + length == next ? end - next : 0;
  const auto* in = reinterpret_cast<const unsigned char*>(bytes);
  std::size_t at = 0;
  unsigned pendingLead = 0; // the last byte looked at is a lead: a continuation must follow
  bool fits = true;
#if defined(QORXMLU_HAVE_SSE2)
  const __m128i topTwo = _mm_set1_epi8(static_cast<char>(0xC0)), continuation = _mm_set1_epi8(static_cast<char>(0x80));
  while (at < length && (length - at >= 16 || (readAhead && roomBehind >= 16))) {
    const unsigned n = length - at >= 16 ? 16 : static_cast<unsigned>(length - at);
    const unsigned inText = n == 16 ? 0xFFFFu : (1u << n) - 1;
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + at));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(copy + at), block);
    const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(block)) & inText;
    if (high != 0 || pendingLead) {
      // Continuations 80..BF; leads C2..DF, as signed bytes after flipping the top bit 42..5F.
      const unsigned continuations =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_and_si128(block, topTwo), continuation))) &
          inText;
      const __m128i flipped = _mm_xor_si128(block, continuation);
      const unsigned leads = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(
                                 _mm_cmpgt_epi8(flipped, _mm_set1_epi8(0x41)), _mm_cmplt_epi8(flipped, _mm_set1_epi8(0x60))))) &
                             inText;
      if ((high & ~(continuations | leads)) != 0 || continuations != (((leads << 1) | pendingLead) & inText)) {
        fits = false;
        break;
      }
      pendingLead = leads >> (n - 1) & 1;
    }
    at += n;
  }
#endif
  for (; fits && at < length; ++at) {
    const unsigned byte = in[at];
    const bool isContinuation = (byte & 0xC0) == 0x80;
    if (isContinuation != (pendingLead != 0) || (byte >= 0x80 && !isContinuation && (byte < 0xC2 || byte > 0xDF)))
      fits = false;
    pendingLead = byte >= 0xC2 && byte <= 0xDF;
    copy[at] = static_cast<char>(byte);
  }
  if (!fits || pendingLead) {
    if (copy + length == next) next = copy; // the room goes back
    return false;
  }
  kept = {copy, length};
  return true;
}

// ---- XMLAttrBlock -------------------------------------------------------------------------

namespace {
std::size_t BlockBytes(std::size_t capacity) {
  if (capacity > std::numeric_limits<std::uint32_t>::max()) throw std::bad_alloc();
  return sizeof(XMLAttrBlock) + capacity * sizeof(XMLAttrEntry);
}
} // namespace

XMLAttrBlock* XMLAttrBlock::Create(std::size_t capacity) {
  auto* block = new (AllocateOrThrow(BlockBytes(capacity))) XMLAttrBlock;
  block->capacity = static_cast<std::uint32_t>(capacity);
  return block;
}

XMLAttrBlock* XMLAttrBlock::Create(XMLArena& arena, std::size_t capacity) {
  auto* block = new (arena.Allocate(BlockBytes(capacity))) XMLAttrBlock;
  block->capacity = static_cast<std::uint32_t>(capacity);
  block->inArena = true;
  block->borrows = true;
  return block;
}

XMLAttrBlock* XMLAttrBlock::CopyOwned(const XMLAttrBlock& source, std::size_t capacity) {
  XMLAttrBlock* copy = Create(capacity < source.count ? source.count : capacity);
  try {
    for (std::uint32_t i = 0; i < source.count; ++i) {
      XMLAttrEntry& entry = copy->Append();
      entry.name.AssignCopy(source.Entries()[i].name);
      entry.value.AssignCopy(source.Entries()[i].value);
    }
  } catch (...) {
    Release(copy);
    throw;
  }
  return copy;
}

XMLAttrBlock* XMLAttrBlock::Share() noexcept {
  holders.fetch_add(1, std::memory_order_relaxed);
  return this;
}

void XMLAttrBlock::Release(XMLAttrBlock* block) noexcept {
  if (!block || block->holders.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  XMLAttrEntry* entries = block->Entries();
  for (std::uint32_t i = 0; i < block->count; ++i) entries[i].~XMLAttrEntry();
  const bool inArena = block->inArena;
  block->~XMLAttrBlock();
  if (!inArena) std::free(block);
}

// ---- TagText ------------------------------------------------------------------------------

std::size_t TwoByteUtf8Units(std::string_view bytes) noexcept {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t continuations = 0;
  std::size_t at = 0;
#if defined(QORXMLU_HAVE_SSE2)
  const __m128i topTwo = _mm_set1_epi8(static_cast<char>(0xC0)), continuation = _mm_set1_epi8(static_cast<char>(0x80));
  for (; at + 16 <= bytes.size(); at += 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + at));
    continuations += static_cast<std::size_t>(std::popcount(static_cast<unsigned>(
        _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_and_si128(block, topTwo), continuation)))));
  }
#endif
  for (; at < bytes.size(); ++at) continuations += (in[at] & 0xC0) == 0x80;
  return bytes.size() - continuations;
}

std::size_t DecodeTwoByteUtf8(std::string_view bytes, char16_t* units, std::size_t room) noexcept {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  char16_t* out = units;
  std::size_t i = 0;
#if defined(QORXMLU_HAVE_SSE2)
  // Sixteen bytes widened at once while sixteen units fit; a run of ASCII keeps them all, else up
  // to the first lead, whose pair follows it (the form has no other).
  while (bytes.size() - i >= 16 && room - static_cast<std::size_t>(out - units) >= 16) {
    const unsigned high = WidenSixteen(in + i, out);
    if (high == 0) {
      out += 16;
      i += 16;
      continue;
    }
    const auto ascii = static_cast<std::size_t>(std::countr_zero(high));
    out += ascii;
    i += ascii;
    *out++ = static_cast<char16_t>((in[i] & 0x1F) << 6 | (in[i + 1] & 0x3F));
    i += 2;
  }
#endif
  for (; i < bytes.size(); ++i) {
    const unsigned byte = in[i];
    if (byte < 0x80) {
      *out++ = static_cast<char16_t>(byte);
    } else {
      *out++ = static_cast<char16_t>((byte & 0x1F) << 6 | (in[i + 1] & 0x3F));
      ++i;
    }
  }
  return static_cast<std::size_t>(out - units);
}

String TagText::Str() const {
  if (!IsUtf8()) return String(View());
  String text;
  std::u16string& units = text.Std();
  units.resize(TwoByteUtf8Units(Utf8()));
  DecodeTwoByteUtf8(Utf8(), units.data(), units.size());
  return text;
}

namespace {
// Whether the bytes (of the two-byte form) decode to the units, without decoding them first.
bool SameUnits(std::string_view bytes, std::u16string_view units) noexcept {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t i = 0, j = 0;
  while (i < bytes.size()) {
    if (j == units.size()) return false;
    const unsigned byte = in[i];
    if (byte < 0x80) {
      if (units[j] != byte) return false;
      ++i;
    } else {
      if (units[j] != ((byte & 0x1F) << 6 | (in[i + 1] & 0x3F))) return false;
      i += 2;
    }
    ++j;
  }
  return j == units.size();
}
} // namespace

bool TagText::Equals(std::u16string_view text) const noexcept {
  return IsUtf8() ? SameUnits(Utf8(), text) : View() == text;
}

bool TagText::Equals(const TagText& other) const {
  if (IsUtf8() && other.IsUtf8()) return Utf8() == other.Utf8(); // the form's decoding is one to one
  if (IsUtf8()) return SameUnits(Utf8(), other.View());
  return other.Equals(View());
}

void TagText::Assign(std::u16string_view text) {
  char16_t* copy = nullptr;
  if (!text.empty()) {
    if (text.size() > maxLength) throw std::bad_alloc();
    copy = static_cast<char16_t*>(AllocateOrThrow(text.size() * sizeof(char16_t)));
    std::memcpy(copy, text.data(), text.size() * sizeof(char16_t));
  }
  Release();
  data = copy;
  length = copy ? static_cast<std::uint32_t>(text.size()) | ownedBit : 0;
}

void TagText::AssignCopy(const TagText& other) {
  if (!other.IsUtf8()) {
    Assign(other.View());
    return;
  }
  const String units = other.Str();
  Assign(units.View());
}

void TagText::Release() noexcept {
  if (length & ownedBit) std::free(const_cast<void*>(data));
  data = nullptr;
  length = 0;
}

// ---- TagList ------------------------------------------------------------------------------

void TagList::Insert(XMLTag* tag, std::size_t index) {
  if (index > count) index = count;
  const std::uint32_t room = capacity & ~lentBit;
  if (count == room) {
    // Full: move to a block of the list's own, with room to grow.
    if (count >= ~lentBit) throw std::bad_alloc();
    std::uint64_t grown = count < 4 ? 4 : std::uint64_t(count) + count / 2;
    if (grown > ~lentBit) grown = ~lentBit;
    auto* block = static_cast<XMLTag**>(AllocateOrThrow(static_cast<std::size_t>(grown) * sizeof(XMLTag*)));
    if (count) std::memcpy(block, items, count * sizeof(XMLTag*));
    if (!(capacity & lentBit)) std::free(items);
    items = block;
    capacity = static_cast<std::uint32_t>(grown);
  }
  std::memmove(items + index + 1, items + index, (count - index) * sizeof(XMLTag*));
  items[index] = tag;
  ++count;
}

void TagList::Remove(std::size_t index) noexcept {
  if (index >= count) return;
  std::memmove(items + index, items + index + 1, (count - index - 1) * sizeof(XMLTag*));
  --count;
}

void TagList::Clear() noexcept {
  if (!(capacity & lentBit)) std::free(items);
  items = nullptr;
  count = capacity = 0;
}

void TagList::Lend(XMLTag** block, std::size_t room) {
  if (room >= ~lentBit) throw std::bad_alloc();
  Clear();
  items = block;
  capacity = static_cast<std::uint32_t>(room) | lentBit;
}

} // namespace QOR::detail
