// The library's own door into XMLTag: construction and direct field access for the document,
// the reader and the writer. Hosts see only the public operations.
#pragma once

#include <qorxmlu/xml/XMLTag.h>

#include "xml/XMLStorage.h"

#include <string_view>

namespace QOR::detail {

class XMLTagAccess {
public:
  static XMLTag* Make(XMLTag* parent) { return new XMLTag(parent); }
  static XMLTag* Make(XMLTag* parent, String name) { return XMLTag::Make(parent, std::move(name)).release(); }
  static XMLTag* Make(XMLTag* parent, String name, String value) {
    return XMLTag::Make(parent, std::move(name), std::move(value)).release();
  }
  static XMLTag* Make(XMLTag* parent, String name, String value, String attrName, String attrValue) {
    return XMLTag::Make(parent, std::move(name), std::move(value), std::move(attrName), std::move(attrValue))
        .release();
  }
  // An empty tag in the arena; delete destroys it without freeing its room.
  static XMLTag* MakeIn(XMLArena& tags, XMLTag* parent) {
    auto* tag = new (tags.Allocate(sizeof(XMLTag))) XMLTag(parent);
    tag->inStorage = true;
    return tag;
  }
  // A copy of source's whole tree under a new top tag of its own. The nested tags go into tags,
  // and share texts and attribute lists with source; so the copy must hold the text arena that
  // source's tree borrows from.
  static XMLTag* CopyDocument(const XMLTag& source, XMLArena& tags) { return XMLTag::CopyTag(source, nullptr, &tags); }
  // A copy of source under parent that borrows nothing.
  static XMLTag* Copy(const XMLTag& source, XMLTag* parent) { return XMLTag::CopyTag(source, parent, nullptr); }

  static XMLTag* Parent(const XMLTag& tag) { return tag.parent; }
  static const TagText& Name(const XMLTag& tag) { return tag.name; }
  static const TagText& Value(const XMLTag& tag) { return tag.value; }
  static std::u16string_view Comment(const XMLTag& tag) {
    return tag.comment ? tag.comment->View() : std::u16string_view();
  }
  static const XMLAttrBlock* Attributes(const XMLTag& tag) { return tag.attributes; }
  static const TagList& NestedTags(const XMLTag& tag) { return tag.nestedTags; }

  static TagText& Name(XMLTag& tag) { return tag.name; }
  static TagText& Value(XMLTag& tag) { return tag.value; }
  static TagList& NestedTags(XMLTag& tag) { return tag.nestedTags; }
  // Gives the tag this block in place of its attribute list; the tag takes over the caller's hold.
  static void SetAttributes(XMLTag& tag, XMLAttrBlock* block) noexcept {
    tag.DropAttributes();
    tag.attributes = block;
  }
};

} // namespace QOR::detail
