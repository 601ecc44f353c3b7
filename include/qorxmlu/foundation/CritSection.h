// Locks: CritSection (recursive, like a Windows critical section), its scope guard, and the
// process-wide lock that guards the bodies of shared arrays.
#pragma once

#include <qorxmlu/Export.h>

#include <mutex>

namespace QOR {

// A recursive lock. Usable from static initialisation: a static CritSection is ready before any
// code of its translation unit runs.
class QORXMLU_API CritSection {
public:
  explicit CritSection(const char* name = nullptr) noexcept : name(name) {}
  CritSection(const CritSection&) = delete;
  CritSection& operator=(const CritSection&) = delete;

  void Enter() { mutex.lock(); }
  bool TryEnter() { return mutex.try_lock(); }
  void Leave() { mutex.unlock(); }
  const char* Name() const noexcept { return name ? name : ""; }

private:
  const char* name;
  std::recursive_mutex mutex;
};

// Holds a CritSection for its scope.
class CritSectionLock {
public:
  explicit CritSectionLock(CritSection& section) : section(section) { section.Enter(); }
  ~CritSectionLock() { section.Leave(); }
  CritSectionLock(const CritSectionLock&) = delete;
  CritSectionLock& operator=(const CritSectionLock&) = delete;

private:
  CritSection& section;
};

// The process-wide lock of shared array bodies: taken for a few instructions, never across a wait,
// always the innermost lock. Recursive.
QORXMLU_API void BlockOnCritSection() noexcept;
QORXMLU_API void UnblockOnCritSection() noexcept;

} // namespace QOR
