#include <qorxmlu/foundation/WriteableFile.h>

#include "platform/Platform.h"

namespace QOR {

ErrorInfo* WriteableFile::Open(bool append) {
  if (ErrorInfo* error = Close()) return error;
  auto mode = append ? platform::FileMode::Append : platform::FileMode::Write;
  int failure = platform::OpenFile(path, mode, handle);
  return failure ? FileError("Can't open file for writing", failure) : nullptr;
}

ErrorInfo* WriteableFile::Write(const void* data, std::size_t size) {
  if (!handle) return FileError("Can't write unopened file", 0);
  int failure = platform::WriteFile(handle, data, size);
  return failure ? FileError("Can't write file", failure) : nullptr;
}

ErrorInfo* WriteableFile::Flush(bool commit) {
  if (!handle) return FileError("Can't flush unopened file", 0);
  int failure = platform::FlushFile(handle, commit);
  return failure ? FileError("Can't flush file", failure) : nullptr;
}

std::uint64_t WriteableFile::Position() const { return GetFileSize(); }

} // namespace QOR
