// A text taken apart element by element.
//
// With lineMode set, an element is a line: lines end at LF or CR LF, the line end is not
// delivered, empty lines are delivered, and a line end at the very end makes no extra empty line.
// Without lineMode, elements are the runs of text between blanks (space, tab, CR, LF).
//
// Inline: the constructor, which only stores the text.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/String.h>

namespace QOR {

class QORXMLU_API ParsableText {
public:
  // Takes text apart from its start.
  explicit ParsableText(String text) : text(std::move(text)) {}

  // Puts the next element into element and returns true, or returns false at the end.
  // separator, when not 0, ends elements in place of the line ends or blanks.
  bool GetNextElem(String* element, char16_t separator = 0);

  // True: elements are lines; false: runs between blanks.
  bool lineMode = false;

private:
  String text;
  std::size_t position = 0;
};

} // namespace QOR
