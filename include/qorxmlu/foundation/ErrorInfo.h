// Error records: an operation that can fail returns ErrorInfo*, null for success.
//
// A record lives on the heap and belongs to whoever receives it, who deletes it or hands it on.
// Records join into a chain with SafeConcat; deleting the first deletes the whole chain. Every
// operation that hands one out is [[nodiscard]]; ErrorPtr owns one for a scope:
//
//   if (QOR::ErrorPtr error{doc.Write("settings.xml")}) std::puts(error->FullText().ToUtf8().c_str());
//
// Inline: the constructor, Text and Next, which touch fields only.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/String.h>

#include <memory>

namespace QOR {

class QORXMLU_API ErrorInfo {
public:
  // A record of one text, at the end of no chain; MakeError is the usual way to make one.
  explicit ErrorInfo(String text) : text(std::move(text)) {}
  ErrorInfo(const ErrorInfo&) = delete;
  ErrorInfo& operator=(const ErrorInfo&) = delete;
  // Deletes the records behind this one too.
  virtual ~ErrorInfo();

  // This record's own text.
  const String& Text() const noexcept { return text; }
  // The next record of the chain, or null.
  ErrorInfo* Next() const noexcept { return next; }
  // Every text of the chain, in order, joined by separator.
  String FullText(const String& separator = String(u"; ")) const;

private:
  friend QORXMLU_API ErrorInfo* SafeConcat(ErrorInfo* first, ErrorInfo* second);
  String text;
  ErrorInfo* next = nullptr;
};

// A new record with that text.
[[nodiscard]] QORXMLU_API ErrorInfo* MakeError(String text);
// A new record whose text is prefix followed by text.
[[nodiscard]] QORXMLU_API ErrorInfo* MakeError(String prefix, String text);
// A new record whose text is text followed by the number in decimal ("Soap error: " 5 -> "Soap error: 5").
[[nodiscard]] QORXMLU_API ErrorInfo* MakeError(String text, int number);
// Takes over both and returns one chain, first's records before second's; null only if both are.
[[nodiscard]] QORXMLU_API ErrorInfo* SafeConcat(ErrorInfo* first, ErrorInfo* second);

// Owns an error record (and the chain behind it) and deletes it at the end of its scope.
using ErrorPtr = std::unique_ptr<ErrorInfo>;

} // namespace QOR
