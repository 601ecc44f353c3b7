// A driver trace brought to a form where libqorinet and WinInet can differ by timing alone: a
// write or read shows only its outcome ("-> <bytes>" or "-> error <code>"), whether it returned
// at once or pended, without its progress statuses; HANDLE_CLOSING loses its thread mark (it
// comes inside the close or just after, by a race); CLOSING_CONNECTION and CONNECTION_CLOSED are
// dropped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace QOR::inettest {

using Lines = std::vector<std::string>;

Lines CanonicalTrace(const Lines& trace);
// The lines from `from` up to `to`, indented, for failure messages.
std::string ShowLines(const Lines& lines, std::size_t from = 0, std::size_t to = SIZE_MAX);

} // namespace QOR::inettest
