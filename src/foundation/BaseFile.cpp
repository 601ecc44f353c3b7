#include <qorxmlu/foundation/BaseFile.h>

#include "platform/Platform.h"

namespace QOR {

BaseFile::BaseFile(String path) : path(std::move(path)) {}

BaseFile::~BaseFile() {
  if (handle) platform::CloseFile(handle);
}

std::uint64_t BaseFile::GetFileSize() const { return handle ? platform::FileSize(handle) : 0; }

ErrorInfo* BaseFile::Close() {
  if (!handle) return nullptr;
  int failure = platform::CloseFile(handle);
  handle = nullptr;
  return failure ? FileError("Can't close file", failure) : nullptr;
}

ErrorInfo* BaseFile::FileError(const char* what, int systemError) const {
  String text = String::FromAscii(what);
  text << u" '" << path << u"'";
  if (systemError) text << u": " << platform::FileErrorMessage(systemError);
  return MakeError(std::move(text));
}

} // namespace QOR
