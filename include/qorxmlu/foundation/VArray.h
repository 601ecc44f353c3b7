// Shared, copy-on-write array of records: each element is a heap record made by a copy of what is
// added and destroyed when it leaves the array.
//
// Growing moves the pointers, never the records, so a pointer to a record stays good while the
// array grows. A copy that separates copies every record. Indices are not tested.
//
// Inline: all of it, a template over ArrayCore.
#pragma once

#include <qorxmlu/foundation/ArrayCore.h>

namespace QOR {

namespace detail {
template <class T>
struct OwnedRecords {
  static T* Copy(T* record) { return new T(*record); }
  static void Destroy(T* record) noexcept { delete record; }
};
} // namespace detail

template <class T, class A = const T&>
class VArray : public detail::ArrayCore<T*, detail::OwnedRecords<T>> {
public:
  // The record at index (below Size()). The non-const form first gives this handle records of
  // its own, so a write through it never shows in a copy.
  T& operator[](std::size_t index) { return *this->Own()->items[index]; }
  const T& operator[](std::size_t index) const { return *this->Items()[index]; }

  // Appends a copy of element.
  void Add(A element) { Append(new T(element)); }
  // Inserts a copy of element before index; an index of Size() or above appends.
  void Insert(A element, std::size_t index) {
    T* record = new T(element);
    try {
      this->InsertStored(record, index);
    } catch (...) {
      delete record;
      throw;
    }
  }
  // Destroys the record at index and closes the gap; the index must be valid.
  void Remove(std::size_t index) {
    auto* own = this->Own();
    delete own->items[index];
    this->EraseStored(index);
  }
  // Destroys the records from index size upward; Truncate(0) also releases the block.
  void Truncate(std::size_t size) { this->TruncateStored(size); }

private:
  void Append(T* record) {
    try {
      this->AppendStored(record);
    } catch (...) {
      delete record;
      throw;
    }
  }
};

} // namespace QOR
