#include <qorxmlu/foundation/ErrorInfo.h>

namespace QOR {

ErrorInfo::~ErrorInfo() {
  // Unlink the chain first so that a long chain is freed in a loop, not by recursion.
  ErrorInfo* rest = next;
  while (rest) {
    ErrorInfo* after = rest->next;
    rest->next = nullptr;
    delete rest;
    rest = after;
  }
}

String ErrorInfo::FullText(const String& separator) const {
  String all = text;
  for (const ErrorInfo* record = next; record; record = record->next) {
    all += separator;
    all += record->text;
  }
  return all;
}

ErrorInfo* MakeError(String text) { return new ErrorInfo(std::move(text)); }

ErrorInfo* MakeError(String prefix, String text) {
  prefix += text;
  return new ErrorInfo(std::move(prefix));
}

ErrorInfo* MakeError(String text, int number) {
  text << number;
  return new ErrorInfo(std::move(text));
}

ErrorInfo* SafeConcat(ErrorInfo* first, ErrorInfo* second) {
  if (!first) return second;
  if (!second || second == first) return first;
  ErrorInfo* last = first;
  while (last->next) last = last->next;
  last->next = second;
  return first;
}

} // namespace QOR
