#include <qorxmlu/foundation/Encoding.h>

#include "Spin.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace QOR {

namespace {

constexpr char16_t replacement = 0xFFFD;

bool IsContinuation(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

int CountTrailingZeros(unsigned mask) {
#if defined(_MSC_VER) && !defined(__clang__)
  unsigned long index;
  _BitScanForward(&index, mask);
  return static_cast<int>(index);
#else
  return __builtin_ctz(mask);
#endif
}

// Copies the ASCII bytes at in to out, widened, and returns how many there were. May write up to
// 15 units past that count, never more than end - in units in all.
std::size_t WidenAscii(const std::uint8_t* in, const std::uint8_t* end, char16_t* out) {
  const std::uint8_t* start = in;
#if defined(QORXMLU_HAVE_SSE2)
  const __m128i zero = _mm_setzero_si128();
  while (end - in >= 16) {
    __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    unsigned high = static_cast<unsigned>(_mm_movemask_epi8(bytes));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(bytes, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(bytes, zero));
    if (high) {
      int ascii = CountTrailingZeros(high);
      return static_cast<std::size_t>(in - start) + ascii;
    }
    in += 16;
    out += 16;
  }
#endif
  while (in < end && *in < 0x80) *out++ = *in++;
  return static_cast<std::size_t>(in - start);
}

// Narrows the ASCII units at in to out and returns how many there were. May write up to 15 bytes
// past that count, never more than end - in bytes in all.
std::size_t NarrowAscii(const char16_t* in, const char16_t* end, char* out) {
  const char16_t* start = in;
#if defined(QORXMLU_HAVE_SSE2)
  const __m128i nonAscii = _mm_set1_epi16(static_cast<short>(0xFF80));
  const __m128i zero = _mm_setzero_si128();
  while (end - in >= 16) {
    __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 8));
    __m128i wide = _mm_or_si128(_mm_and_si128(low, nonAscii), _mm_and_si128(high, nonAscii));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(wide, zero)) != 0xFFFF) break;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(low, high));
    in += 16;
    out += 16;
  }
#endif
  while (in < end && *in < 0x80) *out++ = static_cast<char>(*in++);
  return static_cast<std::size_t>(in - start);
}

// The bytes that the units encode to, without terminator or mark.
std::size_t Utf8Length(const char16_t* in, std::size_t length) {
  const char16_t* end = in + length;
  std::size_t bytes = 0;
  while (in < end) {
    char16_t unit = *in++;
    if (unit < 0x80) {
      ++bytes;
    } else if (unit < 0x800) {
      bytes += 2;
    } else if (unit >= 0xD800 && unit <= 0xDBFF && in < end && *in >= 0xDC00 && *in <= 0xDFFF) {
      bytes += 4;
      ++in;
    } else {
      bytes += 3; // the unit itself, or U+FFFD for an unpaired surrogate
    }
  }
  return bytes;
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
  // No sequence yields more units than it has bytes, so out stays behind in, and the bulk
  // writes of WidenAscii stay inside the output.
  while (in < end) {
    std::uint32_t lead = *in;
    if (lead < 0x80) {
      std::size_t ascii = WidenAscii(in, end, out);
      in += ascii;
      out += ascii;
      continue;
    }
    std::size_t left = static_cast<std::size_t>(end - in);
    if (lead < 0xE0) {
      if (lead >= 0xC2 && left >= 2 && IsContinuation(in[1])) {
        *out++ = static_cast<char16_t>((lead & 0x1F) << 6 | (in[1] & 0x3F));
        in += 2;
      } else {
        *out++ = replacement; // stray continuation byte, overlong lead C0/C1, or a lone lead
        ++in;
      }
      continue;
    }
    // The second byte's range rules out overlong forms, surrogates and code points above U+10FFFF.
    std::uint8_t low = 0x80, high = 0xBF;
    std::size_t size = 3;
    if (lead < 0xF0) {
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead < 0xF5) {
      size = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      *out++ = replacement; // F5..FF start no sequence (the old 5 and 6 byte forms among them)
      ++in;
      continue;
    }
    // The longest valid prefix of a sequence becomes one U+FFFD; the next byte starts afresh.
    std::size_t valid = 1;
    if (left >= 2 && in[1] >= low && in[1] <= high) {
      valid = 2;
      while (valid < size && valid < left && IsContinuation(in[valid])) ++valid;
    }
    if (valid < size) {
      *out++ = replacement;
    } else if (size == 3) {
      *out++ = static_cast<char16_t>((lead & 0x0F) << 12 | (in[1] & 0x3F) << 6 | (in[2] & 0x3F));
    } else {
      std::uint32_t code = (lead & 0x07) << 18 | (in[1] & 0x3F) << 12 | (in[2] & 0x3F) << 6 | (in[3] & 0x3F);
      *out++ = static_cast<char16_t>(0xD7C0 + (code >> 10));
      *out++ = static_cast<char16_t>(0xDC00 | (code & 0x3FF));
    }
    in += valid;
  }
  return static_cast<std::size_t>(out - output);
}

std::size_t EncodeUtf8Units(const char16_t* input, std::size_t length, char* output) {
  const char16_t* in = input;
  const char16_t* end = in + length;
  auto* out = reinterpret_cast<std::uint8_t*>(output);
  while (in < end) {
    char16_t unit = *in;
    if (unit < 0x80) {
      std::size_t ascii = NarrowAscii(in, end, reinterpret_cast<char*>(out));
      in += ascii;
      out += ascii;
      continue;
    }
    ++in;
    if (unit < 0x800) {
      out[0] = static_cast<std::uint8_t>(0xC0 | unit >> 6);
      out[1] = static_cast<std::uint8_t>(0x80 | (unit & 0x3F));
      out += 2;
      continue;
    }
    std::uint32_t code = unit;
    if (unit >= 0xD800 && unit <= 0xDFFF) {
      if (unit <= 0xDBFF && in < end && *in >= 0xDC00 && *in <= 0xDFFF) {
        code = 0x10000 + ((code - 0xD800) << 10) + (*in++ - 0xDC00);
        out[0] = static_cast<std::uint8_t>(0xF0 | code >> 18);
        out[1] = static_cast<std::uint8_t>(0x80 | (code >> 12 & 0x3F));
        out[2] = static_cast<std::uint8_t>(0x80 | (code >> 6 & 0x3F));
        out[3] = static_cast<std::uint8_t>(0x80 | (code & 0x3F));
        out += 4;
        continue;
      }
      code = replacement;
    }
    out[0] = static_cast<std::uint8_t>(0xE0 | code >> 12);
    out[1] = static_cast<std::uint8_t>(0x80 | (code >> 6 & 0x3F));
    out[2] = static_cast<std::uint8_t>(0x80 | (code & 0x3F));
    out += 3;
  }
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
