// A file written as bytes, in binary mode (a CR LF stays CR LF on every platform).
//
// Inline: the constructor, which only hands the path to BaseFile.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/BaseFile.h>

namespace QOR {

class QORXMLU_API WriteableFile : public BaseFile {
public:
  // A file object for path; Open opens or makes it.
  explicit WriteableFile(String path) : BaseFile(std::move(path)) {}

  // Opens for writing: append true writes behind what the file holds, false starts the file anew.
  // The file is made if it doesn't exist; other readers and writers are not shut out.
  [[nodiscard]] ErrorInfo* Open(bool append);
  // Writes all size bytes.
  [[nodiscard]] ErrorInfo* Write(const void* data, std::size_t size);
  // Hands what was written to the system; commit true also waits until it is on stable storage.
  [[nodiscard]] ErrorInfo* Flush(bool commit);
  // Bytes in the file now.
  std::uint64_t Position() const;
};

} // namespace QOR
