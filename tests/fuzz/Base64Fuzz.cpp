// libFuzzer target for the Base64 decoder.
//
// The first byte picks the check: arbitrary text against a reference decoder written from the
// decoder's contract (into a block of exactly the size the library asked for, so that ASan sees
// any write past it), or arbitrary bytes encoded here, decoded by the library and compared.
#include <qorxmlu/foundation/Encoding.h>

#include "FormParts.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

using namespace QOR;

int DigitValue(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+' || c == '-') return 62;
  if (c == '/' || c == '_') return 63;
  return -1;
}

// Digits are gathered up to the first '=' and every other character is skipped; the digits then
// decode in groups of four, a final two or three carry one or two bytes, a lone one nothing.
std::string ReferenceDecode(std::string_view text) {
  std::string digits;
  for (char c : text) {
    if (c == '=') break;
    if (DigitValue(c) >= 0) digits += c;
  }
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 4) {
    std::size_t count = std::min<std::size_t>(4, digits.size() - i);
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 4; ++k) group = group << 6 | (k < count ? DigitValue(digits[i + k]) : 0);
    for (std::size_t k = 0; k + 1 < count; ++k) bytes += static_cast<char>(group >> (16 - 8 * k));
  }
  return bytes;
}

// The library's decoding of zero-terminated text, into a block of exactly the size it asks for.
std::string Decode(const std::string& text) {
  const std::size_t need = CalculateRequiredDecodeOutputBufferSize(text.c_str());
  std::unique_ptr<char[]> block(new char[need]);
  const std::size_t length = Base64DecodeBuffer(text.c_str(), block.get());
  if (length > need) std::abort();
  // The counted form agrees with the zero-terminated one.
  std::unique_ptr<char[]> again(new char[need]);
  if (Base64DecodeBuffer(text.data(), text.size(), again.get()) != length ||
      std::memcmp(block.get(), again.get(), length) != 0)
    std::abort();
  return std::string(block.get(), length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] & 1) {
    const std::string bytes(rest);
    if (Decode(test::Base64Text(bytes)) != bytes) {
      std::fprintf(stderr, "encoded bytes do not decode back\n");
      std::abort();
    }
  } else {
    const std::string text(rest.substr(0, rest.find('\0')));
    if (Decode(text) != ReferenceDecode(text)) {
      std::fprintf(stderr, "decoder and reference differ\n");
      std::abort();
    }
  }
  return 0;
}
