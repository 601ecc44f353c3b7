// The holder through which a host and a SoapQueue share a query: a Refcounted that gives up its
// reference while its own type is still whole.
//
// Inline: all of it, a template over Refcounted.
#pragma once

#include <qorxmlu/query/Refcounted.h>

namespace QOR {

template <class T>
class SafeItem : public Refcounted<T> {
public:
  // Holds item (which may be null) with a new count of 1.
  explicit SafeItem(T* item = nullptr) : Refcounted<T>(item) {}
  SafeItem(const SafeItem&) = default;
  SafeItem& operator=(const SafeItem&) = default;
  // Gives up this holder's reference; the base destructor then finds nothing left to do.
  ~SafeItem() override { this->Release(); }
};

} // namespace QOR
