// The library's own door into XMLTag: construction and direct field access for the document,
// the reader and the writer. Hosts see only the public operations.
#pragma once

#include <qorxmlu/xml/XMLTag.h>

#include "xml/XMLStorage.h"

#include <cstdint>
#include <string_view>

namespace QOR::detail {

// What a tag holds. Every XMLTag is an XMLNode, made only here; the public class holds nothing.
struct XMLNode final : XMLTag {
  explicit XMLNode(XMLTag* owner, bool inStorage = false) noexcept
      : parentAndPlace(reinterpret_cast<std::uintptr_t>(owner) | (inStorage ? 1 : 0)) {}
  ~XMLNode() {
    DestroyNestedTags();
    DropAttributes();
  }

  // Destroys every tag below this one, leaving nestedTags empty.
  void DestroyNestedTags() noexcept;
  // Gives up the attribute list.
  void DropAttributes() noexcept;
  // Makes the attribute list this tag's own, with room for one more when adding.
  XMLAttrBlock& OwnAttributes(bool adding);
  // A new tag on the heap: name, then value trimmed, then one attribute, as far as given.
  static std::unique_ptr<XMLTag> Make(XMLTag* owner, String tagName);
  static std::unique_ptr<XMLTag> Make(XMLTag* owner, String tagName, String tagValue);
  static std::unique_ptr<XMLTag> Make(XMLTag* owner, String tagName, String tagValue, String attrName,
                                      String attrValue);
  // A deep copy of source under owner. With tags given, the nested tags are made there and share
  // texts and attribute lists with source, and a top tag copy holds texts of its own; without,
  // the copy borrows nothing and shares only attribute lists that own their texts.
  static XMLTag* CopyTag(const XMLTag& source, XMLTag* owner, XMLArena* tags);

  XMLTag* Parent() const noexcept { return reinterpret_cast<XMLTag*>(parentAndPlace & ~std::uintptr_t(1)); }
  void SetParent(XMLTag* owner) noexcept {
    parentAndPlace = reinterpret_cast<std::uintptr_t>(owner) | (parentAndPlace & 1);
  }
  // Made in the document's storage, not on the heap.
  bool InStorage() const noexcept { return (parentAndPlace & 1) != 0; }

  std::uintptr_t parentAndPlace; // the parent tag, and in the lowest bit InStorage
  TagText name;
  TagText value;
  std::unique_ptr<String> comment;    // few tags have one: held apart, null for none
  XMLAttrBlock* attributes = nullptr; // shared copy-on-write; null for none
  TagList nestedTags;
};
static_assert(alignof(XMLNode) >= 2, "the lowest bit of a tag's address is free");
static_assert(sizeof(void*) != 8 || sizeof(XMLNode) == 64, "a tag takes 64 bytes");

inline XMLNode& Node(XMLTag& tag) noexcept { return static_cast<XMLNode&>(tag); }
inline const XMLNode& Node(const XMLTag& tag) noexcept { return static_cast<const XMLNode&>(tag); }

class XMLTagAccess {
public:
  static XMLTag* Make(XMLTag* parent) { return new XMLNode(parent); }
  static XMLTag* Make(XMLTag* parent, String name) { return XMLNode::Make(parent, std::move(name)).release(); }
  static XMLTag* Make(XMLTag* parent, String name, String value) {
    return XMLNode::Make(parent, std::move(name), std::move(value)).release();
  }
  static XMLTag* Make(XMLTag* parent, String name, String value, String attrName, String attrValue) {
    return XMLNode::Make(parent, std::move(name), std::move(value), std::move(attrName), std::move(attrValue))
        .release();
  }
  // An empty tag in the arena; delete destroys it without freeing its room.
  static XMLTag* MakeIn(XMLArena& tags, XMLTag* parent) {
    return new (tags.Allocate(sizeof(XMLNode))) XMLNode(parent, true);
  }
  // A copy of source's whole tree under a new top tag of its own. The nested tags go into tags,
  // and share texts and attribute lists with source; so the copy must hold the text arena that
  // source's tree borrows from.
  static XMLTag* CopyDocument(const XMLTag& source, XMLArena& tags) { return XMLNode::CopyTag(source, nullptr, &tags); }
  // A copy of source under parent that borrows nothing.
  static XMLTag* Copy(const XMLTag& source, XMLTag* parent) { return XMLNode::CopyTag(source, parent, nullptr); }

  static XMLTag* Parent(const XMLTag& tag) { return Node(tag).Parent(); }
  static const TagText& Name(const XMLTag& tag) { return Node(tag).name; }
  static const TagText& Value(const XMLTag& tag) { return Node(tag).value; }
  static std::u16string_view Comment(const XMLTag& tag) {
    return Node(tag).comment ? Node(tag).comment->View() : std::u16string_view();
  }
  static const XMLAttrBlock* Attributes(const XMLTag& tag) { return Node(tag).attributes; }
  static const TagList& NestedTags(const XMLTag& tag) { return Node(tag).nestedTags; }

  static TagText& Name(XMLTag& tag) { return Node(tag).name; }
  static TagText& Value(XMLTag& tag) { return Node(tag).value; }
  static TagList& NestedTags(XMLTag& tag) { return Node(tag).nestedTags; }
  // Gives the tag this block in place of its attribute list; the tag takes over the caller's hold.
  static void SetAttributes(XMLTag& tag, XMLAttrBlock* block) noexcept {
    Node(tag).DropAttributes();
    Node(tag).attributes = block;
  }
};

} // namespace QOR::detail
