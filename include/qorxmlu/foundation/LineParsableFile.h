// A text file read one line per call.
//
// The encoding comes from the byte order mark: UTF-8 (with or without EF BB BF; invalid bytes
// decode to U+FFFD), or UTF-16 LE/BE behind FF FE / FE FF. Lines end at LF or CR LF; the line end
// is not delivered. Empty lines are delivered; a final line without a line end is delivered; a line
// end at the very end of the file does not make one more, empty line. The file is read in blocks,
// never held whole.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ReadableFile.h>

#include <memory>

namespace QOR {

class QORXMLU_API LineParsableFile : public ReadableFile {
public:
  // A file object for path; Open opens it.
  explicit LineParsableFile(String path);
  ~LineParsableFile() override;

  // Opens the file (see ReadableFile::Open).
  [[nodiscard]] ErrorInfo* Open();
  // Puts the next line into line and returns 1, or returns 0 at the end. A read failure sets error
  // (the call then returns 0). maxLength, when not 0, is the longest line taken, in 16-bit units:
  // a longer line sets error "Line too long in file '<path>'" and ends the reading.
  int NextLine(String& line, ErrorInfo*& error, std::size_t maxLength = 0);

private:
  [[nodiscard]] ErrorInfo* Refill();
  void TakeEncoding();

  struct Reader;
  std::unique_ptr<Reader> reader;
};

} // namespace QOR
