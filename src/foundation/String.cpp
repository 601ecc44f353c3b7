#include <qorxmlu/foundation/String.h>

#include <qorxmlu/foundation/Encoding.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>

namespace QOR {

namespace {

bool IsBlank(char16_t unit) {
  return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n' || unit == u'\v' || unit == u'\f';
}

void AppendAscii(std::u16string& units, const char* text, std::size_t length) {
  std::size_t at = units.size();
  units.resize(at + length);
  for (std::size_t i = 0; i < length; ++i) units[at + i] = static_cast<unsigned char>(text[i]);
}

// The number text at the start of units, after leading blanks, as ASCII for std::from_chars.
// Returns false if no number starts there.
bool NumberText(std::u16string_view units, std::string& out, bool allowFraction) {
  std::size_t i = 0;
  while (i < units.size() && IsBlank(units[i])) ++i;
  if (i < units.size() && (units[i] == u'+' || units[i] == u'-')) out += static_cast<char>(units[i++]);
  std::size_t digits = 0;
  auto take = [&](auto accept) {
    while (i < units.size() && accept(units[i])) {
      out += static_cast<char>(units[i++]);
      ++digits;
    }
  };
  auto isDigit = [](char16_t c) { return c >= u'0' && c <= u'9'; };
  take(isDigit);
  if (!allowFraction) return digits > 0;
  if (i < units.size() && units[i] == u'.') {
    out += '.';
    ++i;
    take(isDigit);
  }
  if (digits == 0) return false;
  if (i < units.size() && (units[i] == u'e' || units[i] == u'E')) {
    std::string exponent(1, 'e');
    std::size_t j = i + 1;
    if (j < units.size() && (units[j] == u'+' || units[j] == u'-')) exponent += static_cast<char>(units[j++]);
    std::size_t start = j;
    while (j < units.size() && isDigit(units[j])) exponent += static_cast<char>(units[j++]);
    if (j > start) out += exponent;
  }
  return true;
}

} // namespace

String::String(const char16_t* text) : units(text ? text : u"") {}

String::String(const char16_t* text, std::size_t length) : units(text ? text : u"", text ? length : 0) {}

String::String(const wchar_t* text) {
  if (!text) return;
  if constexpr (sizeof(wchar_t) == 2) {
    units.assign(reinterpret_cast<const char16_t*>(text));
  } else {
    for (; *text; ++text) {
      auto code = static_cast<std::uint32_t>(*text);
      if (code >= 0x10000 && code <= 0x10FFFF) {
        code -= 0x10000;
        units += static_cast<char16_t>(0xD800 + (code >> 10));
        units += static_cast<char16_t>(0xDC00 + (code & 0x3FF));
      } else {
        units += static_cast<char16_t>(code > 0x10FFFF ? 0xFFFD : code);
      }
    }
  }
}

String::String(const char* utf8) : String(utf8 ? FromUtf8(utf8) : String()) {}
String::String(const std::string& utf8) : String(FromUtf8(utf8)) {}
String::String(std::string_view utf8) : String(FromUtf8(utf8)) {}
String::String(const char8_t* utf8) : String(reinterpret_cast<const char*>(utf8)) {}
String::String(std::u8string_view utf8)
    : String(FromUtf8(std::string_view(reinterpret_cast<const char*>(utf8.data()), utf8.size()))) {}

String& String::operator=(const char* utf8) { return *this = String(utf8); }

String String::FromUtf8(std::string_view utf8) { return DecodeFromUTF8(utf8.data(), utf8.size(), false); }

std::string String::ToUtf8() const {
  std::string out(units.size() * 3, '\0');
  out.resize(EncodeUtf8Units(units.data(), units.size(), out.data()));
  return out;
}

String String::FromAscii(std::string_view ascii) {
  String text;
  AppendAscii(text.units, ascii.data(), ascii.size());
  return text;
}

std::wstring String::ToWide() const {
  if constexpr (sizeof(wchar_t) == 2) {
    return std::wstring(reinterpret_cast<const wchar_t*>(units.data()), units.size());
  } else {
    std::wstring wide;
    wide.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
      char32_t unit = units[i];
      bool high = unit >= 0xD800 && unit <= 0xDBFF;
      if (high && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
        unit = 0x10000 + ((unit - 0xD800) << 10) + (units[++i] - 0xDC00);
      } else if (unit >= 0xD800 && unit <= 0xDFFF) {
        unit = 0xFFFD;
      }
      wide += static_cast<wchar_t>(unit);
    }
    return wide;
  }
}

String& String::operator=(const char16_t* text) {
  units.assign(text ? text : u"");
  return *this;
}

String& String::operator=(const wchar_t* text) { return *this = String(text); }

String String::Left(std::size_t count) const { return String(units.substr(0, count)); }

String String::Mid(std::size_t start, std::size_t count) const {
  if (start >= units.size()) return String();
  return String(units.substr(start, count));
}

std::ptrdiff_t String::Find(std::u16string_view text, std::size_t start) const noexcept {
  if (start > units.size()) return -1;
  std::size_t at = std::u16string_view(units).find(text, start);
  return at == std::u16string_view::npos ? -1 : static_cast<std::ptrdiff_t>(at);
}

String& String::TrimAll() {
  std::size_t end = units.size();
  while (end > 0 && IsBlank(units[end - 1])) --end;
  units.erase(end);
  return TrimLeft();
}

String& String::TrimLeft() {
  std::size_t start = 0;
  while (start < units.size() && IsBlank(units[start])) ++start;
  units.erase(0, start);
  return *this;
}

template <class N>
String& String::AppendInteger(N number) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof digits, number);
  AppendAscii(units, digits, static_cast<std::size_t>(result.ptr - digits));
  return *this;
}

String& String::operator<<(int number) { return AppendInteger(number); }
String& String::operator<<(unsigned int number) { return AppendInteger(number); }
String& String::operator<<(long number) { return AppendInteger(number); }
String& String::operator<<(unsigned long number) { return AppendInteger(number); }
String& String::operator<<(long long number) { return AppendInteger(number); }
String& String::operator<<(unsigned long long number) { return AppendInteger(number); }

String& FormattedString::operator<<(double number) { return target.AppendDouble(number, format); }

String& String::operator<<(double number) { return AppendDouble(number, DoubleFormat()); }

String& String::AppendDouble(double number, DoubleFormat format) {
  char text[400];
  std::to_chars_result result;
  bool fixed = format.decimals >= 0 && std::isfinite(number);
  if (fixed) {
    result = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed,
                           std::min(format.decimals, 60));
  } else {
    result = std::to_chars(text, text + sizeof text, number);
  }
  if (result.ec != std::errc()) return *this;
  std::string shown(text, result.ptr);
  if (fixed && format.truncZero && shown.find('.') != std::string::npos) {
    shown.erase(shown.find_last_not_of('0') + 1);
    if (shown.back() == '.') shown.pop_back();
  }
  if (format.wholeDigits > 0 && std::isfinite(number)) {
    std::size_t signs = (!shown.empty() && shown[0] == '-') ? 1 : 0;
    std::size_t point = shown.find_first_of(".e");
    std::size_t whole = (point == std::string::npos ? shown.size() : point) - signs;
    if (whole < static_cast<std::size_t>(format.wholeDigits)) {
      shown.insert(signs, static_cast<std::size_t>(format.wholeDigits) - whole, '0');
    }
  }
  AppendAscii(units, shown.data(), shown.size());
  return *this;
}

template <class N>
const String& String::ParseInteger(N& number) const {
  std::string text;
  if (!NumberText(units, text, false)) return *this;
  const char* first = text.data();
  if (*first == '+') ++first;
  if (std::is_unsigned_v<N> && *first == '-') return *this;
  N value{};
  auto result = std::from_chars(first, text.data() + text.size(), value);
  if (result.ec == std::errc()) number = value;
  return *this;
}

const String& String::operator>>(int& number) const { return ParseInteger(number); }
const String& String::operator>>(unsigned int& number) const { return ParseInteger(number); }
const String& String::operator>>(long& number) const { return ParseInteger(number); }
const String& String::operator>>(unsigned long& number) const { return ParseInteger(number); }
const String& String::operator>>(long long& number) const { return ParseInteger(number); }
const String& String::operator>>(unsigned long long& number) const { return ParseInteger(number); }

const String& String::operator>>(double& number) const {
  std::string text;
  if (!NumberText(units, text, true)) return *this;
  const char* first = text.data();
  if (*first == '+') ++first;
  double value = 0;
  auto result = std::from_chars(first, text.data() + text.size(), value);
  if (result.ec == std::errc()) number = value;
  return *this;
}

const String& GetEmptyString() {
  static const String empty;
  return empty;
}

} // namespace QOR
