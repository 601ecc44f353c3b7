#include "TraceSteps.h"

#include <algorithm>
#include <regex>

namespace QOR::inettest {

namespace {

std::string TransferOutcome(const std::string& call, const std::vector<std::string>& callbacks) {
  static const std::regex immediate(" -> TRUE (\\d+)$");
  static const std::regex failed(" -> FALSE (\\d+)$");
  static const std::regex progress(" (31|41) (\\d+)$");
  static const std::regex success(" 100 \\(1,0\\)$");
  static const std::regex failure(" 100 \\(0,(\\d+)\\)$");
  std::smatch match;
  std::string head = call.substr(0, call.find(" -> "));
  if (std::regex_search(call, match, immediate)) return head + " -> " + match[1].str();
  if (std::regex_search(call, match, failed)) return head + " -> error " + match[1].str();
  std::string bytes = "?";
  for (const std::string& line : callbacks) {
    if (std::regex_search(line, match, progress)) bytes = match[2].str();
    if (std::regex_search(line, match, success)) return head + " -> " + bytes;
    if (std::regex_search(line, match, failure)) return head + " -> error " + match[1].str();
  }
  return head + " -> no completion";
}

bool IsTransfer(const std::string& call) {
  return call.rfind("InternetWriteFile", 0) == 0 || call.rfind("InternetReadFileExA", 0) == 0;
}

} // namespace

std::vector<Step> CanonicalSteps(const std::vector<std::string>& trace) {
  std::vector<Step> steps;
  for (const std::string& line : trace) {
    if (line.rfind("  ", 0) != 0) {
      steps.push_back({line, {}});
    } else if (!steps.empty()) {
      steps.back().callbacks.push_back(line);
    }
  }
  for (Step& step : steps) {
    if (IsTransfer(step.call)) {
      step.call = TransferOutcome(step.call, step.callbacks);
      step.callbacks.clear();
      continue;
    }
    std::vector<std::string> kept;
    for (const std::string& line : step.callbacks) {
      std::string status = line.substr(4, line.find(' ', 4) - 4);
      if (status == "50" || status == "51") continue;
      kept.push_back(status == "70" ? "  " + line.substr(4) : line);
    }
    step.callbacks = kept;
  }
  return steps;
}

std::vector<std::string> CanonicalLines(const std::vector<std::string>& trace) {
  std::vector<std::string> lines;
  for (const Step& step : CanonicalSteps(trace)) {
    lines.push_back(step.call);
    lines.insert(lines.end(), step.callbacks.begin(), step.callbacks.end());
  }
  return lines;
}

std::string ShowSteps(const std::vector<Step>& steps, std::size_t from, std::size_t to) {
  std::string text;
  for (std::size_t i = from; i < std::min(to, steps.size()); ++i) {
    text += "    " + steps[i].call + "\n";
    for (const std::string& line : steps[i].callbacks) text += "    " + line + "\n";
  }
  return text;
}

} // namespace QOR::inettest
