// Reply bytes that libcurl delivered while no read was waiting for them. Bounded by the caller:
// libcurl is paused once the queue holds enough, so the reply is never held whole.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

namespace QOR::inet {

class ByteQueue {
public:
  std::size_t Size() const { return bytes.size() - head; }

  void Append(const char* data, std::size_t size) {
    if (size == 0) return;
    // Drop the consumed front once it is at least half of the storage: each byte moves at most
    // once on average.
    if (head > 0 && head >= bytes.size() / 2) {
      bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(head));
      head = 0;
    }
    bytes.insert(bytes.end(), data, data + size);
  }

  // Moves up to `size` bytes into `out`; returns how many.
  std::size_t Take(char* out, std::size_t size) {
    std::size_t count = std::min(size, Size());
    if (count > 0) std::memcpy(out, bytes.data() + head, count);
    head += count;
    if (head == bytes.size()) {
      bytes.clear();
      head = 0;
    }
    return count;
  }

  void Clear() {
    bytes.clear();
    head = 0;
  }

private:
  std::vector<char> bytes;
  std::size_t head = 0;
};

} // namespace QOR::inet
