// Files on POSIX: plain descriptors, opened with the path in UTF-8.
#include "platform/Platform.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QOR::platform {

struct FileHandle {
  int descriptor;
};

int OpenFile(const String& path, FileMode mode, FileHandle*& file) {
  int flags = O_CLOEXEC;
  switch (mode) {
  case FileMode::Read: flags |= O_RDONLY; break;
  case FileMode::Write: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
  case FileMode::Append: flags |= O_WRONLY | O_CREAT | O_APPEND; break;
  }
  int descriptor;
  do {
    descriptor = open(path.ToUtf8().c_str(), flags, 0666);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return errno;
  struct stat info {};
  if (mode == FileMode::Read && fstat(descriptor, &info) == 0 && S_ISDIR(info.st_mode)) {
    close(descriptor);
    return EISDIR;
  }
  file = new FileHandle{descriptor};
  return 0;
}

int ReadFile(FileHandle* file, void* buffer, std::size_t size, std::size_t& bytesRead) {
  bytesRead = 0;
  auto* into = static_cast<char*>(buffer);
  while (bytesRead < size) {
    ssize_t got = read(file->descriptor, into + bytesRead, size - bytesRead);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    bytesRead += static_cast<std::size_t>(got);
  }
  return 0;
}

int WriteFile(FileHandle* file, const void* data, std::size_t size) {
  auto* from = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t put = write(file->descriptor, from, size);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno;
    from += put;
    size -= static_cast<std::size_t>(put);
  }
  return 0;
}

int FlushFile(FileHandle* file, bool commit) {
  // Writes go straight to the system; only a commit has work to do.
  return commit && fsync(file->descriptor) != 0 ? errno : 0;
}

int CloseFile(FileHandle* file) {
  int result = close(file->descriptor) == 0 ? 0 : errno;
  delete file;
  return result == EINTR ? 0 : result;
}

std::uint64_t FileSize(FileHandle* file) {
  struct stat info {};
  return fstat(file->descriptor, &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

std::uint64_t FilePosition(FileHandle* file) {
  off_t at = lseek(file->descriptor, 0, SEEK_CUR);
  return at < 0 ? 0 : static_cast<std::uint64_t>(at);
}

} // namespace QOR::platform
