// Lets GoogleTest show a String as UTF-8 text in failure messages.
#pragma once

#include <qorxmlu/foundation/String.h>

#include <ostream>

namespace QOR {
inline void PrintTo(const String& text, std::ostream* out) { *out << '"' << text.ToUtf8() << '"'; }
} // namespace QOR
