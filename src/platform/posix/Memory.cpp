// Large blocks: mapped at their own alignment and marked for transparent huge pages, so a large
// document costs one page fault per 2 MB instead of one per 4 KB.
#include "platform/Platform.h"

#include <sys/mman.h>

#include <cstdint>

namespace QOR::platform {

namespace {
constexpr std::size_t blockSize = 4 * 1024 * 1024;
constexpr std::size_t hugePageSize = 2 * 1024 * 1024;
} // namespace

std::size_t LargeBlockSize() { return blockSize; }

void* AllocateLargeBlock() {
  // Map more than needed and give back the ends, which leaves a block on a huge page boundary.
  const std::size_t mapped = blockSize + hugePageSize;
  void* area = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) return nullptr;
  const auto start = reinterpret_cast<std::uintptr_t>(area);
  const std::uintptr_t aligned = (start + hugePageSize - 1) & ~(std::uintptr_t(hugePageSize) - 1);
  if (aligned > start) munmap(area, aligned - start);
  const std::size_t tail = start + mapped - (aligned + blockSize);
  if (tail) munmap(reinterpret_cast<void*>(aligned + blockSize), tail);
  void* block = reinterpret_cast<void*>(aligned);
#ifdef MADV_HUGEPAGE
  madvise(block, blockSize, MADV_HUGEPAGE); // advice only: a refusal changes nothing
#endif
  return block;
}

void FreeLargeBlock(void* block) noexcept {
  if (block) munmap(block, blockSize);
}

} // namespace QOR::platform
