#include <qorxmlu/foundation/ReadableFile.h>

#include "platform/Platform.h"

namespace QOR {

ErrorInfo* ReadableFile::Open() {
  if (handle) return nullptr;
  int failure = platform::OpenFile(path, platform::FileMode::Read, handle);
  return failure ? FileError("Can't open file", failure) : nullptr;
}

ErrorInfo* ReadableFile::ReadFile(void* buffer, std::size_t size, std::size_t* bytesRead) {
  if (bytesRead) *bytesRead = 0;
  if (!handle) return FileError("Can't read unopened file", 0);
  std::size_t got = 0;
  int failure = platform::ReadFile(handle, buffer, size, got);
  if (failure) return FileError("Can't read file", failure);
  if (bytesRead) {
    *bytesRead = got;
  } else if (got < size) {
    return FileError("Unexpected end of file", 0);
  }
  return nullptr;
}

} // namespace QOR
