// Bounded busy waiting for hand-offs that usually complete within a few microseconds.
#pragma once

#include <chrono>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define QORXMLU_HAVE_SSE2 1
#endif

namespace QOR::detail {

// Tells the CPU that this is a spin loop (frees the core's other hyper-thread).
inline void CpuRelax() noexcept {
#if defined(QORXMLU_HAVE_SSE2)
  _mm_pause();
#endif
}

// Polls ready() for at most limit; true as soon as it answers true. The clock is read only every
// few dozen polls, so a short spin costs little more than the polls themselves.
template <class Ready>
bool SpinUntil(Ready ready, std::chrono::microseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    for (int i = 0; i < 32; ++i) {
      if (ready()) return true;
      CpuRelax();
    }
    if (std::chrono::steady_clock::now() >= deadline) return ready();
  }
}

} // namespace QOR::detail
