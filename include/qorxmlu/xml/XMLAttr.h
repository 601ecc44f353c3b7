// One attribute of a tag: a name and a value, both taken as they are.
#pragma once

#include <qorxmlu/foundation/String.h>

namespace QOR {

// A plain record owned by its tag's attribute list. Nothing is trimmed, escaped or tested: two
// attributes of one tag may share a name, and an empty name is legal.
struct XMLAttr {
  String name;
  String value;
};

} // namespace QOR
