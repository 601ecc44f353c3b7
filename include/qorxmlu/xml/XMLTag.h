// A node of a document tree: a name, one value, one comment, attributes and nested tags.
//
// Tags exist only inside a tree owned by an XML document: they are made by the XML constructors,
// the NestTag family and the reader, never by the host. A tag owns its nested tags; every
// XMLTag* handed out is borrowed and stays valid until that tag or one of its ancestors is
// removed, replaced or destroyed. No operation re-parents a tag.
//
// The tree holds no lock: one document is used by one thread at a time. Attribute lists are shared
// copy-on-write between a tag and its copies, so copies of a document may live on other threads.
// Every walk over a tree (copy, search, destruction) runs in a loop, so depth never exhausts the
// stack.
//
// The class holds no data and has no inline operation: what a tag holds lives in the library, so
// the layout of a tree can change without touching a host.
//
// Indices of the attribute operations, MoveNestedTag and ReplaceNestedTag are limits for the
// caller. One out of range is passed over (a Get gives an empty text), but nothing else about it
// is promised.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/xml/XMLAttr.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

namespace QOR {

class XMLTag;

namespace detail {
class XMLTagAccess;
class XMLArena;
struct XMLNode;
} // namespace detail

class QORXMLU_API XMLTag {
public:
  XMLTag(const XMLTag&) = delete;
  XMLTag& operator=(const XMLTag&) = delete;
  // Destroys the tag and its whole subtree. It does not unlink the tag from its parent: a nested
  // tag is ended with Remove().
  ~XMLTag();
  // Tags of a read or copied document live in the document's storage: delete destroys any tag
  // and frees only those made on their own.
  void operator delete(XMLTag* tag, std::destroying_delete_t);

  // Copies of the fields.
  String GetName() const;
  String GetValue() const;
  String GetComment() const;

  // The number of attributes and of direct nested tags.
  std::size_t NoOfAttributes() const;
  std::size_t NoOfNestedTags() const;
  // The name or value of the attribute at that position (below NoOfAttributes()).
  String GetAttrName(std::size_t index) const;
  String GetAttrVal(std::size_t index) const;
  // The nested tag at that index, or null when the index is not below NoOfNestedTags().
  XMLTag* GetNestedTag(std::size_t index) const;

  // Assign the field as given, with no trimming.
  void SetName(String text);
  void SetValue(String text);
  // Sets the tag's one comment; a second call replaces the first.
  void AddComment(String text);

  // Appends an attribute, without looking for one of that name, and returns this tag for chaining.
  XMLTag* AddAttr(String attrName, String attrValue);
  // Assign the name or value of the attribute at that position.
  void SetAttrName(std::size_t index, String text);
  void SetAttrValue(std::size_t index, String text);
  // Destroys the attribute at that position; later ones move down one place.
  void RemoveAttr(std::size_t index);

  // Convert the value into the argument; the value stays as it is. A value that is no number
  // leaves the argument alone.
  void operator>>(int& number) const;
  void operator>>(unsigned int& number) const;
  void operator>>(long& number) const;
  void operator>>(double& number) const;
  void operator>>(String& text) const;
  // True only when the value is the word "yes".
  void operator>>(bool& flag) const;

  // Replace the value with the number in plain decimal.
  void operator<<(const int& number);
  void operator<<(const unsigned int& number);
  void operator<<(const long& number);
  // Replaces the value with the number: at least one whole digit, up to 15 decimals, no trailing
  // zeros.
  void operator<<(const double& number);
  // Replace the value with the text, untrimmed: 16-bit text, wchar_t text, or UTF-8.
  void operator<<(const String& text);
  void operator<<(const wchar_t* text);
  void operator<<(const char16_t* text);
  void operator<<(const char* utf8);
  // Replaces the value with "yes" or "no".
  void operator<<(const bool& flag);

  // Appends a new tag with the name and the value (trimmed), and an attribute if attrName is not
  // empty. Returns the new tag.
  XMLTag* NestTag(String tagName, String tagValue, String attrName, String attrValue);
  XMLTag* NestTag(String tagName, String tagValue);
  XMLTag* NestTag(String tagName);
  // Appends a deep copy of source as it stands before the call; source may be this tag or one of
  // its descendants. Returns the copy (null, adding nothing, for a null source).
  XMLTag* NestTag(XMLTag* source);
  // Inserts a new tag with that name before the entry at index; an index at or beyond the end
  // appends. Returns the new tag.
  XMLTag* NestTagBeforeIndex(String tagName, std::size_t index);

  // The first direct nested tag whose name, value, or attribute at position attrIndex equals the
  // text, or null. On a hit its index goes to *index if index is not null; on a miss *index stays.
  // Attributes are addressed by position; a tag without that position is no hit.
  XMLTag* FindNestedTag(String tagName, std::size_t* index = nullptr) const;
  XMLTag* FindNestedTagOnValue(String tagValue, std::size_t* index = nullptr) const;
  XMLTag* FindNestedTagOnAttrValue(String attrValue, int attrIndex, std::size_t* index = nullptr) const;

  // True if tag is nested in this tag at any depth (a tag is not its own parent). Only pointers are
  // compared: tag is never followed.
  bool IsParentOf(XMLTag* tag) const;
  // Answers true for every argument and looks at neither tag. Kept for hosts that call it; use
  // IsParentOf for a real answer.
  bool IsChildOf(XMLTag* tag) const;

  // Moves the nested tag at from to stand before the entry that is at to before the move (to at or
  // beyond the end: last). With A B C D, (0, 2) gives B A C D and (3, 0) gives D A B C.
  void MoveNestedTag(std::size_t from, std::size_t to);
  // Puts the nested tag at from in the place of the one at to, which is destroyed; the indices
  // must be valid and differ. With A B C D, (0, 2) gives B A D.
  void ReplaceNestedTag(std::size_t from, std::size_t to);
  // A nested tag: unlinks and destroys it with its subtree, so this pointer is dead afterwards.
  // A top tag: destroys its nested tags and attributes and keeps its name, value and comment.
  void Remove();

private:
  friend class detail::XMLTagAccess;
  friend struct detail::XMLNode;

  // Only the library makes tags; what a tag holds lives in the library's own node type.
  XMLTag() noexcept = default;
  // The allocation functions of that node type: inline, and they reach only the global ones.
  static void* operator new(std::size_t size) { return ::operator new(size); }
  static void* operator new(std::size_t, void* room) noexcept { return room; }
  static void operator delete(void* room) noexcept { ::operator delete(room); }
  static void operator delete(void*, void*) noexcept {}
};

} // namespace QOR
