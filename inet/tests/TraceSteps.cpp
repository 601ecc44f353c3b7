#include "TraceSteps.h"

#include <algorithm>
#include <regex>

namespace QOR::inettest {

namespace {

bool IsCallback(const std::string& line) { return line.rfind("  ", 0) == 0; }

// A write or read with its callbacks, from `first` up to `end`, as one line.
std::string TransferOutcome(const std::string& call, Lines::const_iterator first, Lines::const_iterator end) {
  static const std::regex returned(" -> (TRUE|FALSE) (\\d+)$");
  static const std::regex progress(" (31|41) (\\d+)$");
  static const std::regex completed(" 100 \\((1|0),(\\d+)\\)$");
  std::smatch match;
  std::string head = call.substr(0, call.find(" -> "));
  if (std::regex_search(call, match, returned))
    return head + (match[1] == "TRUE" ? " -> " : " -> error ") + match[2].str();
  std::string bytes = "?";
  for (; first != end; ++first) {
    if (std::regex_search(*first, match, progress)) bytes = match[2].str();
    if (std::regex_search(*first, match, completed))
      return head + (match[1] == "1" ? " -> " + bytes : " -> error " + match[2].str());
  }
  return head + " -> no completion";
}

bool IsTransfer(const std::string& call) {
  return call.rfind("InternetWriteFile", 0) == 0 || call.rfind("InternetReadFileExA", 0) == 0;
}

} // namespace

Lines CanonicalTrace(const Lines& trace) {
  Lines lines;
  for (auto line = trace.begin(); line != trace.end(); ++line) {
    if (IsTransfer(*line)) {
      auto end = std::find_if_not(line + 1, trace.end(), IsCallback);
      lines.push_back(TransferOutcome(*line, line + 1, end));
      line = end - 1;
    } else if (!IsCallback(*line)) {
      lines.push_back(*line);
    } else if (!lines.empty()) {
      std::string status = line->substr(4, line->find(' ', 4) - 4);
      if (status != "50" && status != "51") lines.push_back(status == "70" ? "  " + line->substr(4) : *line);
    }
  }
  return lines;
}

std::string ShowLines(const Lines& lines, std::size_t from, std::size_t to) {
  std::string text;
  for (std::size_t i = from; i < std::min(to, lines.size()); ++i) text += "    " + lines[i] + "\n";
  return text;
}

} // namespace QOR::inettest
