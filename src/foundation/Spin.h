// Bounded busy waiting for hand-offs that usually complete within a few microseconds.
#pragma once

#include "Simd.h"

#include <chrono>
#include <thread>

namespace QOR::detail {

// Tells the CPU that this is a spin loop (frees the core's other hyper-thread).
inline void CpuRelax() noexcept {
#if defined(QORXMLU_HAVE_SSE2)
  _mm_pause();
#endif
}

// Polls ready() for at most limit; true as soon as it answers true. The first microsecond or two
// polls back to back, which catches a partner running on another core; after that each round
// yields the core, in case the partner is waiting for this very core.
template <class Ready>
bool SpinUntil(Ready ready, std::chrono::microseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (int i = 0; i < 64; ++i) {
    if (ready()) return true;
    CpuRelax();
  }
  for (;;) {
    if (ready()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::yield();
  }
}

} // namespace QOR::detail
