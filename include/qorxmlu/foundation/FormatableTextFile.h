// A text file written from a String buffer.
//
// The public text gathers what is to be written; FlushFile encodes it, writes it and empties it.
// A byte order mark goes only at the start of the file.
//
// Inline: the constructor, which only hands the path to WriteableFile.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/WriteableFile.h>

namespace QOR {

class QORXMLU_API FormatableTextFile : public WriteableFile {
public:
  // A file object for path with an empty text; Open opens or makes the file.
  explicit FormatableTextFile(String path) : WriteableFile(std::move(path)) {}

  // Writes text in the encoding bom names and empties it; commit true waits until the bytes are
  // on stable storage.
  [[nodiscard]] ErrorInfo* FlushFile(bool commit, BOM bom);

  // What the next FlushFile writes.
  String text;
};

} // namespace QOR
