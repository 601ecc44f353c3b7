// Symbol visibility of the library's exported classes and functions.
#pragma once

#if defined(QORXMLU_STATIC)
#define QORXMLU_API
#elif defined(_WIN32)
#if defined(QORXMLU_EXPORTS)
#define QORXMLU_API __declspec(dllexport)
#else
#define QORXMLU_API __declspec(dllimport)
#endif
#else
#define QORXMLU_API __attribute__((visibility("default")))
#endif
