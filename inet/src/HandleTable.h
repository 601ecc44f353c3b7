// The process-wide map from HINTERNET values to handle objects. Values are small integers from 1
// up; a value is free again as soon as its handle has reported HANDLE_CLOSING.
#pragma once

#include <qorinet/wininet.h>

#include <memory>

namespace QOR::inet {

class Handle;

namespace HandleTable {

// Enters a handle under the lowest free value and returns that value.
HINTERNET Add(std::shared_ptr<Handle> handle);
// The handle behind a value, or null for an unknown value.
std::shared_ptr<Handle> Find(HINTERNET value);
// Frees a value.
void Remove(HINTERNET value);

} // namespace HandleTable
} // namespace QOR::inet
