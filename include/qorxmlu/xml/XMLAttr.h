// One attribute of a tag: a name and a value, both taken as they are.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/foundation/String.h>

namespace QOR {

// A plain record of one attribute. A tag hands its attributes out by position (GetAttrName,
// GetAttrVal) and keeps them in a form of its own. Nothing is trimmed, escaped or tested: two
// attributes of one tag may share a name, and an empty name is legal.
struct XMLAttr {
  String name;
  String value;
};

} // namespace QOR
