// The common part of the file classes: a path, an open file and its size.
//
// Paths are Strings: UTF-8 on POSIX, wide paths on Windows. A file that cannot be opened or read
// gives an ErrorInfo whose text names the path and the system's reason.
//
// Inline: Path and IsOpen, which read fields only.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>

#include <cstddef>
#include <cstdint>

namespace QOR {

namespace platform {
struct FileHandle;
}

class QORXMLU_API BaseFile {
public:
  // The encoding and byte order mark of a text file that is written.
  enum BOM {
    UTF8WithMark = 0, // UTF-8 behind EF BB BF
    UTF8 = 1,         // UTF-8 with no mark
    UTF16LE = 2,      // UTF-16 little endian behind FF FE
  };

  // A file object for path; nothing is opened yet.
  explicit BaseFile(String path);
  BaseFile(const BaseFile&) = delete;
  BaseFile& operator=(const BaseFile&) = delete;
  // Closes the file if it is open; an error of that is dropped.
  virtual ~BaseFile();

  // The path given at construction.
  const String& Path() const noexcept { return path; }
  // True between a successful Open and Close.
  bool IsOpen() const noexcept { return handle != nullptr; }
  // Size in bytes of the open file (0 if none is open).
  std::uint64_t GetFileSize() const;
  // Closes the file; an error if closing lost data. Closing a closed file does nothing.
  [[nodiscard]] ErrorInfo* Close();

protected:
  // The error for a failed operation on this file: "<what> '<path>': <system reason>".
  [[nodiscard]] ErrorInfo* FileError(const char* what, int systemError) const;

  String path;
  platform::FileHandle* handle = nullptr;
};

} // namespace QOR
