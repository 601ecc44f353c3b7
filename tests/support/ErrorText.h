// Reading and disposing of the error records that operations return.
#pragma once

#include <qorxmlu/foundation/ErrorInfo.h>

#include <string>
#include <vector>

namespace QOR::test {

// The texts of the chain, in order; deletes the chain. Null gives an empty list.
inline std::vector<std::string> TakeTexts(ErrorInfo* error) {
  std::vector<std::string> texts;
  for (ErrorInfo* record = error; record; record = record->Next()) texts.push_back(record->Text().ToUtf8());
  delete error;
  return texts;
}

// The text of a single error ("" for null, all texts joined by " | " for a chain); deletes it.
inline std::string TakeText(ErrorInfo* error) {
  std::string joined;
  for (const std::string& text : TakeTexts(error)) joined += (joined.empty() ? "" : " | ") + text;
  return joined;
}

} // namespace QOR::test
