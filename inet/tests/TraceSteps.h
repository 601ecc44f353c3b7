// A driver trace cut into steps (a call and the callbacks that came with it) and brought to a
// form where libqorinet and WinInet can differ by timing alone: a write or read shows only its
// outcome ("-> <bytes>" or "-> error <code>"), whether it returned at once or pended, without
// its progress statuses; HANDLE_CLOSING loses its thread mark (it comes inside the close or just
// after, by a race); CLOSING_CONNECTION and CONNECTION_CLOSED are dropped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace QOR::inettest {

struct Step {
  std::string call;
  std::vector<std::string> callbacks;
  bool operator==(const Step&) const = default;
};

std::vector<Step> CanonicalSteps(const std::vector<std::string>& trace);
// The same, one line per call and callback.
std::vector<std::string> CanonicalLines(const std::vector<std::string>& trace);
// The steps from `from` up to `to`, indented, for failure messages.
std::string ShowSteps(const std::vector<Step>& steps, std::size_t from = 0, std::size_t to = SIZE_MAX);

} // namespace QOR::inettest
