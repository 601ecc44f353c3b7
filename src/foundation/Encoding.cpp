#include <qorxmlu/foundation/Encoding.h>

#include "Simd.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

namespace QOR {

namespace {

constexpr char16_t replacement = 0xFFFD;

bool IsContinuation(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

// The length of the bad sequence at in (left bytes remain): the longest prefix of a valid
// sequence, at least one byte. The second byte's range rules out overlong forms, surrogates and
// code points above U+10FFFF; C0, C1 and F5..FF start nothing (the old 5 and 6 byte forms among them).
std::size_t BadSequenceLength(const std::uint8_t* in, std::size_t left) {
  std::uint8_t lead = in[0];
  if (lead < 0xE0 || lead >= 0xF5 || left < 2) return 1;
  std::uint8_t low = 0x80, high = 0xBF;
  std::size_t size = lead < 0xF0 ? 3 : 4;
  if (lead == 0xE0) low = 0xA0;
  if (lead == 0xED) high = 0x9F;
  if (lead == 0xF0) low = 0x90;
  if (lead == 0xF4) high = 0x8F;
  if (in[1] < low || in[1] > high) return 1;
  std::size_t valid = 2;
  while (valid < size && valid < left && IsContinuation(in[valid])) ++valid;
  return valid;
}

#if defined(QORXMLU_HAVE_SSE2)

int CountTrailingZeros(unsigned mask) {
#if defined(_MSC_VER) && !defined(__clang__)
  unsigned long index;
  _BitScanForward(&index, mask);
  return static_cast<int>(index);
#else
  return __builtin_ctz(mask);
#endif
}

// Widens the ASCII bytes at in and returns how many there were. May write up to 15 units past
// that count, never more than end - in units in all.
std::size_t WidenAscii(const std::uint8_t* in, const std::uint8_t* end, char16_t* out) {
  const std::uint8_t* start = in;
  const __m128i zero = _mm_setzero_si128();
  while (end - in >= 16) {
    __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(bytes, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(bytes, zero));
    if (unsigned high = static_cast<unsigned>(_mm_movemask_epi8(bytes)))
      return static_cast<std::size_t>(in - start) + static_cast<std::size_t>(CountTrailingZeros(high));
    in += 16;
    out += 16;
  }
  while (in < end && *in < 0x80) *out++ = *in++;
  return static_cast<std::size_t>(in - start);
}

#endif

// The loops below take their cursors by reference but work on local copies: a byte store may
// alias anything, so the compiler would otherwise reload them from memory after every store.

// No sequence yields more units than it has bytes, so out never runs ahead of in, and the
// block writes of WidenAscii stay inside an output of as many units as the input has bytes.
void DecodeSequences(const std::uint8_t*& cursor, const std::uint8_t* end, char16_t*& output) {
  const std::uint8_t* in = cursor;
  char16_t* out = output;
  while (in < end) {
    std::uint32_t lead = *in;
    std::size_t left = static_cast<std::size_t>(end - in);
    if (lead < 0x80) {
#if defined(QORXMLU_HAVE_SSE2)
      if (left > 1 && in[1] < 0x80) { // a run, not a lone space between words
        std::size_t ascii = WidenAscii(in, end, out);
        in += ascii;
        out += ascii;
        continue;
      }
#endif
      *out++ = static_cast<char16_t>(lead);
      ++in;
      continue;
    }
    if (lead >= 0xC2 && lead < 0xE0 && left >= 2 && IsContinuation(in[1])) {
      *out++ = static_cast<char16_t>((lead & 0x1F) << 6 | (in[1] & 0x3F));
      in += 2;
      continue;
    }
    if (lead >= 0xE0 && lead < 0xF0 && left >= 3 && IsContinuation(in[1]) && IsContinuation(in[2])) {
      std::uint32_t code = (lead & 0x0F) << 12 | (in[1] & 0x3F) << 6 | (in[2] & 0x3F);
      if (code >= 0x800 && (code & 0xF800) != 0xD800) {
        *out++ = static_cast<char16_t>(code);
        in += 3;
        continue;
      }
    } else if (lead >= 0xF0 && lead < 0xF5 && left >= 4 && IsContinuation(in[1]) && IsContinuation(in[2]) &&
               IsContinuation(in[3])) {
      std::uint32_t code = (lead & 0x07) << 18 | (in[1] & 0x3F) << 12 | (in[2] & 0x3F) << 6 | (in[3] & 0x3F);
      if (code >= 0x10000 && code <= 0x10FFFF) {
        *out++ = static_cast<char16_t>(0xD7C0 + (code >> 10));
        *out++ = static_cast<char16_t>(0xDC00 | (code & 0x3FF));
        in += 4;
        continue;
      }
    }
    *out++ = replacement;
    in += BadSequenceLength(in, left);
  }
  cursor = in;
  output = out;
}

// Encodes the units before stop (a pair that starts before it is taken whole); no read goes past end.
void EncodeUnits(const char16_t*& cursor, const char16_t* end, const char16_t* stop, std::uint8_t*& output) {
  const char16_t* in = cursor;
  std::uint8_t* out = output;
  while (in < stop) {
    std::uint32_t unit = *in++;
    if (unit < 0x80) {
      *out++ = static_cast<std::uint8_t>(unit);
      continue;
    }
    if (unit < 0x800) {
      out[0] = static_cast<std::uint8_t>(0xC0 | unit >> 6);
      out[1] = static_cast<std::uint8_t>(0x80 | (unit & 0x3F));
      out += 2;
      continue;
    }
    if ((unit & 0xF800) == 0xD800) {
      if (unit <= 0xDBFF && in < end && (*in & 0xFC00) == 0xDC00) {
        std::uint32_t code = 0x10000 + ((unit - 0xD800) << 10) + (*in++ - 0xDC00);
        out[0] = static_cast<std::uint8_t>(0xF0 | code >> 18);
        out[1] = static_cast<std::uint8_t>(0x80 | (code >> 12 & 0x3F));
        out[2] = static_cast<std::uint8_t>(0x80 | (code >> 6 & 0x3F));
        out[3] = static_cast<std::uint8_t>(0x80 | (code & 0x3F));
        out += 4;
        continue;
      }
      unit = replacement;
    }
    out[0] = static_cast<std::uint8_t>(0xE0 | unit >> 12);
    out[1] = static_cast<std::uint8_t>(0x80 | (unit >> 6 & 0x3F));
    out[2] = static_cast<std::uint8_t>(0x80 | (unit & 0x3F));
    out += 3;
  }
  cursor = in;
  output = out;
}

// The bytes that the units before stop encode to, counted as EncodeUnits writes them.
std::size_t CountBytes(const char16_t*& in, const char16_t* end, const char16_t* stop) {
  std::size_t bytes = 0;
  while (in < stop) {
    char16_t unit = *in++;
    if (unit < 0x80) {
      ++bytes;
    } else if (unit < 0x800) {
      bytes += 2;
    } else if (unit >= 0xD800 && unit <= 0xDBFF && in < end && (*in & 0xFC00) == 0xDC00) {
      bytes += 4;
      ++in;
    } else {
      bytes += 3; // the unit itself, or U+FFFD for an unpaired surrogate
    }
  }
  return bytes;
}

#if defined(QORXMLU_HAVE_SSE2)

// The UTF-8 bytes of 4 units below the surrogates (32-bit lanes), as little-endian words, and
// their lengths.
__m128i Utf8Words(__m128i units, __m128i& lengths) {
  const __m128i low6 = _mm_set1_epi32(0x3F);
  __m128i two = _mm_or_si128(_mm_or_si128(_mm_set1_epi32(0x80C0), _mm_srli_epi32(units, 6)),
                             _mm_slli_epi32(_mm_and_si128(units, low6), 8));
  __m128i three = _mm_or_si128(_mm_or_si128(_mm_set1_epi32(0x8080E0), _mm_srli_epi32(units, 12)),
                               _mm_or_si128(_mm_slli_epi32(_mm_and_si128(_mm_srli_epi32(units, 6), low6), 8),
                                            _mm_slli_epi32(_mm_and_si128(units, low6), 16)));
  __m128i atLeastTwo = _mm_cmpgt_epi32(units, _mm_set1_epi32(0x7F));
  __m128i isThree = _mm_cmpgt_epi32(units, _mm_set1_epi32(0x7FF));
  lengths = _mm_sub_epi32(_mm_sub_epi32(_mm_set1_epi32(1), atLeastTwo), isThree);
  return _mm_or_si128(_mm_andnot_si128(atLeastTwo, units),
                      _mm_or_si128(_mm_and_si128(_mm_andnot_si128(isThree, atLeastTwo), two),
                                   _mm_and_si128(isThree, three)));
}

// Encodes 8 units at a time: ASCII is narrowed whole; other blocks are converted in all lanes at
// once, and only the storing of the results goes unit by unit, without branches on the kind of
// character (text that mixes scripts makes such branches unpredictable). Blocks with surrogates
// go to EncodeUnits.
void EncodeBlocks(const char16_t*& cursor, const char16_t* end, std::uint8_t*& output) {
  const char16_t* in = cursor;
  std::uint8_t* out = output;
  const __m128i zero = _mm_setzero_si128();
  // Every unit needs at least one byte, so with 8 more units behind the block a 4-byte store
  // stays inside the output, even one of the exact size.
  while (end - in >= 16) {
    __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    __m128i nonAscii = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(nonAscii, zero)) == 0xFFFF) {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(units, units));
      in += 8;
      out += 8;
      // An ASCII run goes on 16 units at a time.
      while (end - in >= 16) {
        __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 8));
        nonAscii = _mm_and_si128(_mm_or_si128(first, second), _mm_set1_epi16(static_cast<short>(0xFF80)));
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(nonAscii, zero)) != 0xFFFF) break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(first, second));
        in += 16;
        out += 16;
      }
      continue;
    }
    __m128i top = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xF800)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(top, _mm_set1_epi16(static_cast<short>(0xD800))))) {
      EncodeUnits(in, end, in + 8, out);
      continue;
    }
    alignas(16) std::uint32_t words[8], lengths[8];
    __m128i lowLengths, highLengths;
    _mm_store_si128(reinterpret_cast<__m128i*>(words), Utf8Words(_mm_unpacklo_epi16(units, zero), lowLengths));
    _mm_store_si128(reinterpret_cast<__m128i*>(words + 4), Utf8Words(_mm_unpackhi_epi16(units, zero), highLengths));
    _mm_store_si128(reinterpret_cast<__m128i*>(lengths), lowLengths);
    _mm_store_si128(reinterpret_cast<__m128i*>(lengths + 4), highLengths);
    for (int i = 0; i < 8; ++i) {
      std::memcpy(out, &words[i], 4);
      out += lengths[i];
    }
    in += 8;
  }
  cursor = in;
  output = out;
}

#endif

// The bytes that the units encode to, without terminator or mark.
std::size_t Utf8Length(const char16_t* in, std::size_t length) {
  const char16_t* end = in + length;
  std::size_t bytes = 0;
#if defined(QORXMLU_HAVE_SSE2)
  const __m128i zero = _mm_setzero_si128();
  while (end - in >= 8) {
    __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    __m128i top = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xF800)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(top, _mm_set1_epi16(static_cast<short>(0xD800))))) {
      bytes += CountBytes(in, end, in + 8);
      continue;
    }
    // Two mask bits per unit: one byte each, one more at 0x80 and up, one more at 0x800 and up.
    __m128i nonAscii = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)));
    auto ascii = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(nonAscii, zero)));
    auto belowThree = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(top, zero)));
    bytes += 8 + (16 - std::popcount(ascii)) / 2 + (16 - std::popcount(belowThree)) / 2;
    in += 8;
  }
#endif
  return bytes + CountBytes(in, end, end);
}

// Base64 digit values; skip for characters outside the alphabet, stop for '='.
constexpr std::int8_t skip = -1;
constexpr std::int8_t stop = -2;

struct Base64Table {
  std::int8_t value[256];
  constexpr Base64Table() : value() {
    for (int c = 0; c < 256; ++c) value[c] = skip;
    for (int c = 0; c < 26; ++c) {
      value['A' + c] = static_cast<std::int8_t>(c);
      value['a' + c] = static_cast<std::int8_t>(26 + c);
    }
    for (int c = 0; c < 10; ++c) value['0' + c] = static_cast<std::int8_t>(52 + c);
    for (unsigned char c : {'+', '-'}) value[c] = 62;
    for (unsigned char c : {'/', '_'}) value[c] = 63;
    value[static_cast<unsigned char>('=')] = stop;
  }
};

constexpr Base64Table base64;

std::int8_t Base64Value(char c) { return base64.value[static_cast<std::uint8_t>(c)]; }

// The bytes that digits Base64 digits decode to: 3 per group of 4, 1 or 2 for a final 2 or 3.
std::size_t DecodedSize(std::size_t digits) { return digits / 4 * 3 + digits % 4 * 3 / 4; }

} // namespace

std::size_t DecodeUtf8Units(const char* input, std::size_t length, char16_t* output) {
  const auto* in = reinterpret_cast<const std::uint8_t*>(input);
  const std::uint8_t* end = in + length;
  char16_t* out = output;
  DecodeSequences(in, end, out);
  return static_cast<std::size_t>(out - output);
}

std::size_t EncodeUtf8Units(const char16_t* input, std::size_t length, char* output) {
  const char16_t* in = input;
  const char16_t* end = in + length;
  auto* out = reinterpret_cast<std::uint8_t*>(output);
#if defined(QORXMLU_HAVE_SSE2)
  EncodeBlocks(in, end, out);
#endif
  EncodeUnits(in, end, end, out);
  return static_cast<std::size_t>(reinterpret_cast<char*>(out) - output);
}

std::size_t EncodeToUTF8(const String& text, char* buffer, bool addMark) {
  std::size_t mark = addMark ? 3 : 0;
  std::size_t size = mark + Utf8Length(text.Data(), text.Len()) + 1;
  if (!buffer) return size;
  std::memcpy(buffer, "\xEF\xBB\xBF", mark);
  std::size_t written = EncodeUtf8Units(text.Data(), text.Len(), buffer + mark);
  buffer[mark + written] = '\0';
  return size;
}

String DecodeFromUTF8(const char* text, bool skipMark) {
  return text ? DecodeFromUTF8(text, std::strlen(text), skipMark) : String();
}

String DecodeFromUTF8(const char* text, std::size_t length, bool skipMark) {
  if (!text) return String();
  if (skipMark && length >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0) {
    text += 3;
    length -= 3;
  }
  std::u16string units(length, u'\0');
  units.resize(DecodeUtf8Units(text, length, units.data()));
  return String(std::move(units));
}

std::size_t CalculateRequiredDecodeOutputBufferSize(std::size_t textLength) {
  return DecodedSize(textLength);
}

std::size_t CalculateRequiredDecodeOutputBufferSize(const char* text) {
  std::size_t digits = 0;
  if (text) {
    for (; *text; ++text) {
      std::int8_t value = Base64Value(*text);
      if (value == stop) break;
      if (value >= 0) ++digits;
    }
  }
  return DecodedSize(digits);
}

std::size_t Base64DecodeBuffer(const char* text, void* output) {
  return text ? Base64DecodeBuffer(text, std::strlen(text), output) : 0;
}

std::size_t Base64DecodeBuffer(const char* text, std::size_t length, void* output) {
  auto* out = static_cast<std::uint8_t*>(output);
  std::uint32_t bits = 0;
  int digits = 0;
  for (const char* end = text + length; text < end; ++text) {
    std::int8_t value = Base64Value(*text);
    if (value < 0) {
      if (value == stop) break;
      continue;
    }
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    if (++digits == 4) {
      out[0] = static_cast<std::uint8_t>(bits >> 16);
      out[1] = static_cast<std::uint8_t>(bits >> 8);
      out[2] = static_cast<std::uint8_t>(bits);
      out += 3;
      bits = 0;
      digits = 0;
    }
  }
  // A final group of 2 or 3 digits carries 1 or 2 bytes; a lone digit carries none.
  if (digits == 2) {
    *out++ = static_cast<std::uint8_t>(bits >> 4);
  } else if (digits == 3) {
    *out++ = static_cast<std::uint8_t>(bits >> 10);
    *out++ = static_cast<std::uint8_t>(bits >> 2);
  }
  return static_cast<std::size_t>(out - static_cast<std::uint8_t*>(output));
}

} // namespace QOR
