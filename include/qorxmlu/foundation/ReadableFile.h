// A file read as bytes.
//
// Inline: the constructor, which only hands the path to BaseFile.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/BaseFile.h>

namespace QOR {

class QORXMLU_API ReadableFile : public BaseFile {
public:
  // A file object for path; Open opens it.
  explicit ReadableFile(String path) : BaseFile(std::move(path)) {}

  // Opens for reading; fails if the file isn't there or can't be read.
  [[nodiscard]] ErrorInfo* Open();
  // Reads size bytes into buffer. With bytesRead null, fewer bytes than asked is an error
  // ("Unexpected end of file"); otherwise the count read goes there and 0 means the end.
  [[nodiscard]] ErrorInfo* ReadFile(void* buffer, std::size_t size, std::size_t* bytesRead = nullptr);
};

} // namespace QOR
