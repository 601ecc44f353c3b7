// Locks: CritSection (recursive, like a Windows critical section), its scope guard, and the
// process-wide lock that guards the bodies of shared arrays.
//
// Inline: the section's calls on its std::recursive_mutex, Name and the scope lock; nothing of the
// library.
#pragma once

#include <qorxmlu/Export.h>

#include <mutex>

namespace QOR {

// A recursive lock. Usable from static initialisation: a static CritSection is ready before any
// code of its translation unit runs.
class QORXMLU_API CritSection {
public:
  // name is for diagnostics and is not copied (a literal); it may be null.
  explicit CritSection(const char* name = nullptr) noexcept : name(name) {}
  CritSection(const CritSection&) = delete;
  CritSection& operator=(const CritSection&) = delete;

  // Waits for the lock and takes it; a thread that holds it already takes it once more.
  void Enter() { mutex.lock(); }
  // Takes the lock if that needs no wait; true when taken.
  bool TryEnter() { return mutex.try_lock(); }
  // Gives up one Enter of the calling thread, which must hold the lock.
  void Leave() { mutex.unlock(); }
  // The name given at construction ("" for none).
  const char* Name() const noexcept { return name ? name : ""; }

private:
  const char* name;
  std::recursive_mutex mutex;
};

// Holds a CritSection for its scope.
class CritSectionLock {
public:
  // Enters section.
  explicit CritSectionLock(CritSection& section) : section(section) { section.Enter(); }
  // Leaves it.
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
