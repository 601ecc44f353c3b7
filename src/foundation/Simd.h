// SSE2, where the target has it (always on x86-64): QORXMLU_HAVE_SSE2 and its intrinsics.
#pragma once

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define QORXMLU_HAVE_SSE2 1
#endif

#if defined(_MSC_VER)
#include <intrin.h>
#endif
