// Plain types shared by every part of the library.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace QOR {

// Unsigned 32-bit number, as in WinInet's signatures.
using DWORD = std::uint32_t;

} // namespace QOR
