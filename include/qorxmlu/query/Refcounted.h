// Shared ownership of one heap object through a counter on the heap.
//
// Every holder of the same object shares one counter; a copy adds to it and each holder that goes
// away takes its one reference back. The last one destroys the object with DeleteItem. Counts
// change only under RefCountControl's process-wide lock, so holders of one object may be copied
// and dropped on different threads; the object itself gets no lock from this.
//
// Inline: all of it, a template; it reaches only RefCountControl, which the library exports.
#pragma once

#include <qorxmlu/foundation/RefCountControl.h>

namespace QOR {

template <class T>
class Refcounted {
public:
  // Holds item (which may be null) with a new count of 1.
  explicit Refcounted(T* item = nullptr) : item(item), refCount(new unsigned int(1)) {}
  // Shares other's object and counter, adding one reference.
  Refcounted(const Refcounted& other) : item(other.item), refCount(other.refCount) {
    RefCountControl::EnterCritSection();
    ++*refCount;
    RefCountControl::LeaveCritSection();
  }
  // Gives up this holder's reference and shares other's object instead. Nothing happens when both
  // already share a counter.
  Refcounted& operator=(const Refcounted& other) {
    if (this == &other || refCount == other.refCount) return *this;
    RefCountControl::EnterCritSection();
    Release();
    item = other.item;
    refCount = other.refCount;
    released = other.released;
    ++*refCount;
    RefCountControl::LeaveCritSection();
    return *this;
  }
  // Gives up this holder's reference; the last one destroys the object.
  virtual ~Refcounted() { Release(); }

  // The object held, or null.
  virtual T* Get() const { return item; }
  // Destroys p through its virtual destructor; null does nothing.
  virtual void DeleteItem(T* p) { delete p; }

protected:
  // Drops this holder's reference once; at a count of 0 the object and the counter go.
  void Release() {
    RefCountControl::EnterCritSection();
    if (!released && *refCount != 0 && --*refCount == 0) {
      // The object goes under the lock; its destructor must not wait for another thread that
      // drops a reference.
      DeleteItem(item);
      delete refCount;
      refCount = nullptr;
    }
    released = true;
    RefCountControl::LeaveCritSection();
  }

  T* item;
  unsigned int* refCount;
  bool released = false;
};

} // namespace QOR
