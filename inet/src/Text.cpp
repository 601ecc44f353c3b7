#include "Text.h"

namespace QOR::inet {

namespace {

void AppendCodePoint(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

bool IsHigh(char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLow(char16_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

} // namespace

std::string Utf8FromUtf16(const char16_t* text, std::size_t length) {
  std::string out;
  if (!text) return out;
  std::u16string_view units = length == std::u16string_view::npos ? std::u16string_view(text)
                                                                   : std::u16string_view(text, length);
  out.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    char16_t unit = units[i];
    if (IsHigh(unit) && i + 1 < units.size() && IsLow(units[i + 1])) {
      AppendCodePoint(out, 0x10000 + ((char32_t(unit) - 0xD800) << 10) + (char32_t(units[i + 1]) - 0xDC00));
      ++i;
    } else if (IsHigh(unit) || IsLow(unit)) {
      AppendCodePoint(out, 0xFFFD);
    } else {
      AppendCodePoint(out, unit);
    }
  }
  return out;
}

} // namespace QOR::inet
