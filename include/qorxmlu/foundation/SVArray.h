// Shared, copy-on-write array of plain values (pointers, small records).
//
// Nothing is constructed or destroyed with an element. Copies share one body until one of them
// changes it. Indices are not tested unless said otherwise. See ArrayCore.h for growth and locking.
//
// Inline: all of it, a template over ArrayCore.
#pragma once

#include <qorxmlu/foundation/ArrayCore.h>

namespace QOR {

namespace detail {
struct PlainElements {
  template <class E> static E Copy(E element) noexcept { return element; }
  template <class E> static void Destroy(E) noexcept {}
};
} // namespace detail

template <class T, class A = const T&>
class SVArray : public detail::ArrayCore<T, detail::PlainElements> {
  using Core = detail::ArrayCore<T, detail::PlainElements>;

public:
  // The element at index (below Size()). The non-const form first gives this handle a body of
  // its own, so a write through it never shows in a copy.
  T& operator[](std::size_t index) { return this->Own()->items[index]; }
  const T& operator[](std::size_t index) const { return this->Items()[index]; }

  // Inserts at the end.
  void Add(A element) { this->AppendStored(element); }
  // Inserts before index; an index of Size() or above appends.
  void Insert(A element, std::size_t index) { this->InsertStored(element, index); }
  // Removes the element at index, keeping the order of the rest; an index not below Size() is
  // passed over. Capacity stays.
  void Remove(std::size_t index) {
    if (index < this->Size()) this->EraseStored(index);
  }
  // Drops the elements from index size upward; Truncate(0) also releases the block.
  void Truncate(std::size_t size) { this->TruncateStored(size); }
};

} // namespace QOR
