// Text of the W entry points (UTF-16 in 16-bit units) to the UTF-8 that libcurl takes.
#pragma once

#include <qorinet/wininet.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace QOR::inet {

// The UTF-8 form of `length` units of UTF-16 (or up to the NUL when length is npos). Unpaired
// surrogates become U+FFFD. A null pointer gives an empty text.
std::string Utf8FromUtf16(const char16_t* text, std::size_t length = std::u16string_view::npos);

} // namespace QOR::inet
