// Text of 16-bit code units (UTF-16) with value semantics.
//
// Text comes in as 16-bit units (u"...", std::u16string), wchar_t text (L"...") or UTF-8 ("...",
// u8"...", std::string, std::string_view); ToUtf8 gives UTF-8 back. The inline operations below reach only the standard
// library and the exported operations of this class.
//
// Lengths, positions and [] count 16-bit units on every platform. Appends (+=, <<) cost amortised
// constant time per unit. Comparison is exact, unit by unit (case matters).
//
// Numbers: << of an integer writes plain decimal (a minus sign, no grouping, no plus). << of a
// double uses the format set by the steps just before it in the same expression (trunczero, whole,
// dec); without them the shortest text that reads back as the same double.
// >> of a text that is no number leaves the target as it was: leading blanks are skipped, then a
// number must start (an optional sign, then digits); what follows the number is ignored. A number
// out of the target's range also leaves it alone, and so does a minus sign for an unsigned target.
#pragma once

#include <qorxmlu/Export.h>

#include <compare>
#include <cstddef>
#include <string>
#include <string_view>

namespace QOR {

// The line end for String's <<: CR LF.
struct NewLine {};
inline constexpr NewLine newline{};

// A format step for the next double written with String's <<.
struct DoubleFormatStep {
  enum class Kind { TruncZero, Whole, Dec } kind;
  int value;
};

// The next double drops the zeros that end its fraction (and the point if nothing is left).
inline constexpr DoubleFormatStep trunczero{DoubleFormatStep::Kind::TruncZero, 0};
// The next double shows at least this many digits in front of the point.
constexpr DoubleFormatStep whole(int digits) { return {DoubleFormatStep::Kind::Whole, digits}; }
// The next double shows this many digits behind the point.
constexpr DoubleFormatStep dec(int digits) { return {DoubleFormatStep::Kind::Dec, digits}; }

class String;

// The format of one double: what the steps before it asked for.
struct DoubleFormat {
  bool truncZero = false;
  int wholeDigits = -1;
  int decimals = -1;
  // Takes in one step; a later step of the same kind wins.
  DoubleFormat& operator+=(DoubleFormatStep step) {
    switch (step.kind) {
    case DoubleFormatStep::Kind::TruncZero: truncZero = true; break;
    case DoubleFormatStep::Kind::Whole: wholeDigits = step.value; break;
    case DoubleFormatStep::Kind::Dec: decimals = step.value; break;
    }
    return *this;
  }
};

// A String being written, with the format steps for its next double gathered so far. It lives
// only within one << expression; anything but a double or another step drops the format.
class QORXMLU_API FormattedString {
public:
  // Writes into target with the steps gathered so far.
  FormattedString(String& target, DoubleFormat format) : target(target), format(format) {}
  // Adds one more step for the next double.
  FormattedString& operator<<(DoubleFormatStep step) {
    format += step;
    return *this;
  }
  // Appends the number to the target in the gathered format; the format then ends.
  String& operator<<(double number);
  // Appends anything else to the target as String's << does; the format is dropped.
  template <class T> String& operator<<(const T& other);

private:
  String& target;
  DoubleFormat format;
};

class QORXMLU_API String {
public:
  using Unit = char16_t;
  static constexpr std::ptrdiff_t npos = -1;

  // An empty text.
  String() = default;
  // The given units. Null pointers give an empty text.
  String(const char16_t* text);
  String(const char16_t* text, std::size_t length);
  String(std::u16string_view text) : units(text) {}
  String(std::u16string text) noexcept : units(std::move(text)) {}
  // wchar_t text: UTF-16 where wchar_t has 16 bits (Windows), UTF-32 elsewhere.
  String(const wchar_t* text);
  // UTF-8 text, as "..." literals and std::string hold it, decoded as FromUtf8 does. A null
  // pointer gives an empty text.
  String(const char* utf8);
  String(const std::string& utf8);
  String(std::string_view utf8);
  String(const char8_t* utf8);
  String(std::u8string_view utf8);

  // UTF-8 in and out; invalid input decodes to U+FFFD per bad sequence, an unpaired surrogate
  // encodes to U+FFFD.
  static String FromUtf8(std::string_view utf8);
  std::string ToUtf8() const;
  // Plain 7-bit text, such as the fixed messages of the library; each byte becomes one unit.
  static String FromAscii(std::string_view ascii);

  // Replace the text, as the constructors of the same argument do.
  String& operator=(const char16_t* text);
  String& operator=(const wchar_t* text);
  String& operator=(const char* utf8);

  // Exact comparison, unit by unit; a null pointer compares as an empty text.
  friend bool operator==(const String& a, const String& b) noexcept { return a.units == b.units; }
  friend bool operator==(const String& a, const char16_t* b) noexcept { return a.units == (b ? b : u""); }
  friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
    return a.units <=> b.units;
  }

  // Append (+=) or join (+) texts; a null pointer adds nothing.
  String& operator+=(const String& text) { units += text.units; return *this; }
  String& operator+=(std::u16string_view text) { units += text; return *this; }
  String& operator+=(const char16_t* text) { if (text) units += text; return *this; }
  String& operator+=(char16_t unit) { units += unit; return *this; }
  String& operator+=(const char* utf8) { return *this += String(utf8); }
  friend String operator+(String a, const String& b) { a += b; return a; }
  friend String operator+(String a, const char16_t* b) { a += b; return a; }
  friend String operator+(const char16_t* a, const String& b) { String r(a); r += b; return r; }

  // The index must be below Len(); it is not tested.
  char16_t& operator[](std::size_t index) { return units[index]; }
  const char16_t& operator[](std::size_t index) const { return units[index]; }

  // The number of 16-bit units.
  std::size_t Len() const noexcept { return units.size(); }
  bool IsEmpty() const noexcept { return units.empty(); }
  // Removes every unit.
  void SetEmpty() noexcept { units.clear(); }

  // The first count units (all of them if count is larger).
  String Left(std::size_t count) const;
  // From start, count units or up to the end; a start past the end gives an empty text.
  String Mid(std::size_t start, std::size_t count = static_cast<std::size_t>(-1)) const;
  // The first position of text at or behind start, or -1. An empty text is found at start.
  std::ptrdiff_t Find(std::u16string_view text, std::size_t start = 0) const noexcept;
  std::ptrdiff_t Find(const String& text, std::size_t start = 0) const noexcept {
    return Find(text.View(), start);
  }
  std::ptrdiff_t Find(const char16_t* text, std::size_t start = 0) const noexcept {
    return Find(std::u16string_view(text ? text : u""), start);
  }
  // True if text occurs anywhere.
  bool Contains(std::u16string_view text) const noexcept { return Find(text) != -1; }

  // Remove blanks (space, tab, CR, LF, vertical tab, form feed) in place: both ends, or the front.
  String& TrimAll();
  String& TrimLeft();

  // Append text, or an integer in plain decimal, and return this text for chaining.
  String& operator<<(const String& text) { return *this += text; }
  String& operator<<(const char16_t* text) { return *this += text; }
  String& operator<<(const wchar_t* text) { return *this += String(text); }
  String& operator<<(const char* utf8) { return *this += String(utf8); }
  String& operator<<(int number);
  String& operator<<(unsigned int number);
  String& operator<<(long number);
  String& operator<<(unsigned long number);
  String& operator<<(long long number);
  String& operator<<(unsigned long long number);
  // Shortest text that reads back as the same number.
  String& operator<<(double number);
  // Appends CR LF.
  String& operator<<(NewLine) { return *this += u"\r\n"; }
  // Starts a format for the next double of this expression.
  FormattedString operator<<(DoubleFormatStep step) { return FormattedString(*this, DoubleFormat() += step); }
  // The number in the format given.
  String& AppendDouble(double number, DoubleFormat format);

  // Conversions; see the head of this file for text that is no number.
  const String& operator>>(int& number) const;
  const String& operator>>(unsigned int& number) const;
  const String& operator>>(long& number) const;
  const String& operator>>(unsigned long& number) const;
  const String& operator>>(long long& number) const;
  const String& operator>>(unsigned long long& number) const;
  const String& operator>>(double& number) const;

  // Zero-terminated units, valid until the next change.
  const char16_t* Data() const noexcept { return units.c_str(); }
  // The units as a view, valid until the next change.
  std::u16string_view View() const noexcept { return units; }
  // The units themselves, for code that works on std::u16string.
  const std::u16string& Std() const noexcept { return units; }
  std::u16string& Std() noexcept { return units; }
  // Makes room for length units without changing the text.
  void Reserve(std::size_t length) { units.reserve(length); }

  // The text as wchar_t where wchar_t has 16 bits (Windows API calls).
  template <class W = wchar_t>
    requires(sizeof(W) == 2)
  const W* WStr() const noexcept {
    return reinterpret_cast<const W*>(units.c_str());
  }
  // The text as wchar_t units: the same units on Windows, UTF-32 elsewhere.
  std::wstring ToWide() const;

private:
  template <class N> String& AppendInteger(N number);
  template <class N> const String& ParseInteger(N& number) const;

  std::u16string units;
};

template <class T> String& FormattedString::operator<<(const T& other) { return target << other; }

// An empty text, shared.
QORXMLU_API const String& GetEmptyString();

} // namespace QOR
