#include "platform/Platform.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define QORXMLU_MAP_FILLED_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QORXMLU_MAP_FILLED_BLOCKS 0
#endif
#endif
#if !defined(QORXMLU_MAP_FILLED_BLOCKS) && defined(MAP_POPULATE)
#define QORXMLU_MAP_FILLED_BLOCKS 1
#elif !defined(QORXMLU_MAP_FILLED_BLOCKS)
#define QORXMLU_MAP_FILLED_BLOCKS 0
#endif

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

void* AllocateFilledBlock(std::size_t size) {
#if QORXMLU_MAP_FILLED_BLOCKS
  void* block = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  if (block == MAP_FAILED) throw std::bad_alloc();
#else
  void* block = std::malloc(size);
  if (!block) throw std::bad_alloc();
#endif
  return block;
}

void FreeFilledBlock(void* block, std::size_t size) noexcept {
#if QORXMLU_MAP_FILLED_BLOCKS
  munmap(block, size);
#else
  (void)size;
  std::free(block);
#endif
}

} // namespace QOR::platform
