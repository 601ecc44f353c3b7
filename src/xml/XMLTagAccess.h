// The library's own door into XMLTag: construction and direct field access for the document,
// the reader and the writer. Hosts see only the public operations.
#pragma once

#include <qorxmlu/xml/XMLTag.h>

#include <string_view>

namespace QOR::detail {

class XMLTagAccess {
public:
  static XMLTag* Make(XMLTag* parent) { return new XMLTag(parent); }
  static XMLTag* Make(XMLTag* parent, String name) { return new XMLTag(parent, std::move(name)); }
  static XMLTag* Make(XMLTag* parent, String name, String value) {
    return new XMLTag(parent, std::move(name), std::move(value));
  }
  static XMLTag* Make(XMLTag* parent, String name, String value, String attrName, String attrValue) {
    return new XMLTag(parent, std::move(name), std::move(value), std::move(attrName),
                      std::move(attrValue));
  }
  static XMLTag* Copy(const XMLTag& source, XMLTag* parent) { return XMLTag::CopyTag(source, parent); }

  static XMLTag* Parent(const XMLTag& tag) { return tag.parent; }
  static const String& Name(const XMLTag& tag) { return tag.name; }
  static const String& Value(const XMLTag& tag) { return tag.value; }
  static const String& Comment(const XMLTag& tag) { return tag.comment; }
  static const VArray<XMLAttr>& Attributes(const XMLTag& tag) { return tag.attributes; }
  static const SVArray<XMLTag*>& NestedTags(const XMLTag& tag) { return tag.nestedTags; }

  // Appends an attribute made straight from the two texts.
  static void AddAttr(XMLTag& tag, std::u16string_view name, std::u16string_view value) {
    tag.attributes.Add(XMLAttr{});
    XMLAttr& attr = tag.attributes[tag.attributes.Size() - 1];
    attr.name.Std().assign(name);
    attr.value.Std().assign(value);
  }

  static String& Name(XMLTag& tag) { return tag.name; }
  static String& Value(XMLTag& tag) { return tag.value; }
  static SVArray<XMLTag*>& NestedTags(XMLTag& tag) { return tag.nestedTags; }
};

} // namespace QOR::detail
