// The shared, copy-on-write body behind SVArray and VArray.
//
// A handle holds one pointer to a body of five fields (count, capacity, capacityIncrease, shareCount,
// items). Copies share the body; the first change through a shared handle separates it, under the
// process-wide BlockOnCritSection lock. The reported capacity grows by the fixed capacityIncrease,
// but the physical block under it grows geometrically, so adding costs amortised constant time.
// A handle that has never needed a body holds none, and reads as a new body would.
//
// Inline: all of it, a template; it reaches only BlockOnCritSection and UnblockOnCritSection, which
// the library exports.
#pragma once

#include <qorxmlu/foundation/CritSection.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace QOR::detail {

// Stored is the element as it stands in the block; Policy copies and destroys the elements
// (nothing for SVArray, the records for VArray).
template <class Stored, class Policy>
class ArrayCore {
  static_assert(std::is_trivially_copyable_v<Stored>, "array blocks hold plain values");

public:
  static constexpr std::uint64_t defaultIncrease = 80;

  // An empty array; no body is made until the first change.
  ArrayCore() noexcept = default;
  // Shares other's body; nothing is copied until one of the two changes it.
  ArrayCore(const ArrayCore& other) noexcept : body(other.body) { Share(body); }
  // Lets go of this body and shares other's.
  ArrayCore& operator=(const ArrayCore& other) noexcept {
    if (body != other.body) {
      Release(body);
      body = other.body;
      Share(body);
    }
    return *this;
  }
  // Lets go of the body; the last handle destroys it with its elements.
  ~ArrayCore() { Release(body); }

  // The number of elements, the reported capacity, and the step by which that capacity grows.
  std::size_t Size() const noexcept { return body ? static_cast<std::size_t>(body->count) : 0; }
  std::size_t Capacity() const noexcept { return body ? static_cast<std::size_t>(body->capacity) : 0; }
  std::size_t CapacityIncrease() const noexcept {
    return body ? static_cast<std::size_t>(body->capacityIncrease) : defaultIncrease;
  }
  // Handles on this body (1 for a body of its own).
  int ShareCount() const noexcept { return body ? body->shareCount.load(std::memory_order_acquire) : 1; }

  // Sets the step of the reported capacity for this handle's own body; a step of 0 counts as 1.
  void SetCapacityIncrease(std::size_t increase) { Own()->capacityIncrease = increase ? increase : 1; }

protected:
  struct Body {
    std::uint64_t count = 0;
    std::uint64_t capacity = 0;
    std::uint64_t capacityIncrease = defaultIncrease;
    std::atomic<std::int32_t> shareCount{1};
    Stored* items = nullptr;
    std::uint64_t allocated = 0; // physical room in items, never below count
  };

  Stored* Items() const noexcept { return body->items; }

  void InsertStored(Stored element, std::size_t index) {
    Body* own = Own();
    if (index > own->count) index = own->count;
    if (own->count == own->allocated || own->count == own->capacity) Grow(own);
    Stored* items = own->items;
    std::memmove(items + index + 1, items + index, (own->count - index) * sizeof(Stored));
    items[index] = element;
    ++own->count;
  }

  void AppendStored(Stored element) {
    Body* own = Own();
    if (own->count == own->allocated || own->count == own->capacity) Grow(own);
    own->items[own->count++] = element;
  }

  // Removes the element at index from the block; the caller has destroyed it where that applies.
  void EraseStored(std::size_t index) {
    Body* own = Own();
    std::memmove(own->items + index, own->items + index + 1, (own->count - index - 1) * sizeof(Stored));
    --own->count;
  }

  void TruncateStored(std::size_t size) {
    if (!body || size >= body->count) return;
    Body* own = Own();
    for (std::uint64_t i = size; i < own->count; ++i) Policy::Destroy(own->items[i]);
    own->count = size;
    if (size == 0) {
      std::free(own->items);
      own->items = nullptr;
      own->capacity = own->allocated = 0;
    }
  }

  // Makes the body this handle's own, separating it from other handles first.
  Body* Own() {
    if (!body) return body = new Body;
    // A body with one handle can only gain another through this handle, so no lock is needed.
    if (body->shareCount.load(std::memory_order_acquire) == 1) return body;
    Body* copy = Separate(body); // our share keeps the source alive meanwhile
    Release(body);
    return body = copy;
  }

private:
  static void Share(Body* b) noexcept {
    if (!b) return;
    BlockOnCritSection();
    b->shareCount.fetch_add(1, std::memory_order_relaxed);
    UnblockOnCritSection();
  }

  static void Release(Body* b) noexcept {
    if (!b) return;
    bool last = b->shareCount.load(std::memory_order_acquire) == 1;
    if (!last) {
      BlockOnCritSection();
      last = b->shareCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
      UnblockOnCritSection();
    }
    if (!last) return;
    for (std::uint64_t i = 0; i < b->count; ++i) Policy::Destroy(b->items[i]);
    std::free(b->items);
    delete b;
  }

  // A copy of a shared body, as if its elements were appended one by one to a new body: the step
  // is the source's when above the default, and capacity the next multiple of it.
  static Body* Separate(const Body* source) {
    Body* copy = new Body;
    copy->capacityIncrease = source->capacityIncrease > defaultIncrease ? source->capacityIncrease
                                                                         : defaultIncrease;
    try {
      if (source->count) {
        std::uint64_t step = copy->capacityIncrease;
        copy->capacity = (source->count + step - 1) / step * step;
        copy->allocated = source->count;
        copy->items = Allocate(nullptr, copy->allocated);
        for (std::uint64_t i = 0; i < source->count; ++i) {
          copy->items[i] = Policy::Copy(source->items[i]);
          copy->count = i + 1;
        }
      }
    } catch (...) {
      Release(copy);
      throw;
    }
    return copy;
  }

  // Room for one more element: the reported capacity steps by capacityIncrease, the block under
  // it grows geometrically from a few elements, whatever the step.
  static void Grow(Body* own) {
    if (own->count == own->capacity) {
      std::uint64_t capacity = own->capacity + own->capacityIncrease;
      if (capacity < own->capacity) throw std::bad_alloc();
      own->capacity = capacity;
    }
    if (own->count < own->allocated) return;
    std::uint64_t room = own->allocated < 4 ? 4 : own->allocated + own->allocated / 2;
    own->items = Allocate(own->items, room);
    own->allocated = room;
  }

  static Stored* Allocate(Stored* block, std::uint64_t elements) {
    if (elements > static_cast<std::uint64_t>(PTRDIFF_MAX) / sizeof(Stored)) throw std::bad_alloc();
    void* grown = std::realloc(block, static_cast<std::size_t>(elements * sizeof(Stored)));
    if (!grown) throw std::bad_alloc();
    return static_cast<Stored*>(grown);
  }

  Body* body = nullptr;
};

} // namespace QOR::detail
