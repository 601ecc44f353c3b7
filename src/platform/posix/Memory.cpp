#include "platform/Platform.h"

#include <sys/mman.h>

#include <cstdint>

namespace QOR::platform {

namespace {
// Below this a block gains little: a couple of large pages at most.
constexpr std::size_t largeBlock = 8u << 20;
constexpr std::uintptr_t largePage = 2u << 20;
} // namespace

void AdviseFreshBlock(void* block, std::size_t size) {
  if (size < largeBlock) return;
  // Only the large pages that lie wholly inside the block.
  auto start = (reinterpret_cast<std::uintptr_t>(block) + largePage - 1) & ~(largePage - 1);
  auto end = (reinterpret_cast<std::uintptr_t>(block) + size) & ~(largePage - 1);
  if (end > start) madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
}

} // namespace QOR::platform
