// libFuzzer target for the UTF-8 decoder.
//
// Checks what a caller relies on: nothing past the given length is read, the zero-terminated form
// agrees with the counted one, well-formed text (judged by a strict validator of our own) comes
// back byte for byte through the encoder, and whatever the decoder gives is stable under another
// encode and decode.
#include <qorxmlu/foundation/Encoding.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

using namespace QOR;

// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
bool WellFormed(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    std::size_t extra = 0;
    if (lead >= 0xC2 && lead <= 0xDF)
      extra = 1;
    else if (lead >= 0xE0 && lead <= 0xEF)
      extra = 2;
    else if (lead >= 0xF0 && lead <= 0xF4)
      extra = 3;
    else if (lead >= 0x80)
      return false;
    if (bytes.size() - i <= extra) return false;
    std::uint32_t point = extra == 0 ? lead : lead & (0x3F >> extra);
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      point = point << 6 | (next & 0x3F);
    }
    if ((extra == 2 && point < 0x800) || (extra == 3 && (point < 0x10000 || point > 0x10FFFF)) ||
        (point >= 0xD800 && point <= 0xDFFF))
      return false;
    i += extra + 1;
  }
  return true;
}

std::string Encode(const String& text) {
  std::size_t size = EncodeToUTF8(text, nullptr, false);
  std::unique_ptr<char[]> block(new char[size]);
  if (EncodeToUTF8(text, block.get(), false) != size || block[size - 1] != 0) std::abort();
  return std::string(block.get(), size - 1);
}

void Fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size copy: ASan sees any read past the counted length.
  std::unique_ptr<char[]> exact(new char[size]);
  if (size) std::memcpy(exact.get(), data, size);
  const std::string_view bytes(exact.get(), size);

  const String decoded = DecodeFromUTF8(exact.get(), size, false);
  if (decoded.Len() > size) Fail("more units than bytes");

  // The zero-terminated form reads up to the first NUL, as the counted form of that prefix does.
  const std::string terminated(bytes.substr(0, bytes.find('\0')));
  if (!(DecodeFromUTF8(terminated.c_str(), false) == DecodeFromUTF8(terminated.data(), terminated.size(), false)))
    Fail("terminated and counted forms differ");

  // skipMark drops exactly a leading mark and nothing else.
  const String skipped = DecodeFromUTF8(exact.get(), size, true);
  const bool marked = bytes.starts_with("\xEF\xBB\xBF");
  if (!(skipped == (marked ? DecodeFromUTF8(exact.get() + 3, size - 3, false) : decoded))) Fail("mark handling");

  const std::string again = Encode(decoded);
  if (WellFormed(bytes) && again != bytes) Fail("well-formed text does not come back unchanged");
  if (!WellFormed(again)) Fail("the encoder wrote ill-formed UTF-8");
  if (!(DecodeFromUTF8(again.data(), again.size(), false) == decoded)) Fail("decode is not stable");
  return 0;
}
