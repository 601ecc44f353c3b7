// The tag tree. Walks over a tree use the parent pointers or a heap stack, never recursion, so a
// tree of any depth can be copied, searched and destroyed on a small thread stack.
#include <qorxmlu/xml/XMLTag.h>

#include "xml/XMLTagAccess.h"

#include <cstring>

#include <memory>
#include <utility>
#include <vector>

namespace QOR {

using detail::Node;
using detail::XMLAttrBlock;
using detail::XMLAttrEntry;
using detail::XMLNode;

std::unique_ptr<XMLTag> XMLNode::Make(XMLTag* owner, String tagName) {
  std::unique_ptr<XMLTag> tag(new XMLNode(owner));
  Node(*tag).name.Assign(tagName.View());
  return tag;
}

std::unique_ptr<XMLTag> XMLNode::Make(XMLTag* owner, String tagName, String tagValue) {
  std::unique_ptr<XMLTag> tag = Make(owner, std::move(tagName));
  Node(*tag).value.Assign(tagValue.TrimAll().View());
  return tag;
}

std::unique_ptr<XMLTag> XMLNode::Make(XMLTag* owner, String tagName, String tagValue, String attrName,
                                     String attrValue) {
  std::unique_ptr<XMLTag> tag = Make(owner, std::move(tagName), std::move(tagValue));
  tag->AddAttr(std::move(attrName), std::move(attrValue));
  return tag;
}

// A tag's fields die with its node: see the destroying delete below.
XMLTag::~XMLTag() = default;

void XMLTag::operator delete(XMLTag* tag, std::destroying_delete_t) {
  if (!tag) return;
  XMLNode* node = &Node(*tag);
  const bool onHeap = !node->InStorage();
  node->~XMLNode();
  if (onHeap) ::operator delete(node);
}

void XMLNode::DestroyNestedTags() noexcept {
  // The tags still to be destroyed form one list, in document order, threaded through their parent
  // pointers, which nothing needs any more. A tag's nested tags take its place at the head of the
  // list before it is destroyed, so the tags go in the order in which a read made them.
  auto takeNested = [](XMLNode& owner, XMLTag* rest) {
    const detail::TagList& nested = owner.nestedTags;
    for (std::size_t i = nested.Size(); i-- > 0;) {
      Node(*nested[i]).SetParent(rest);
      rest = nested[i];
    }
    owner.nestedTags.Clear();
    return rest;
  };
  XMLTag* next = takeNested(*this, nullptr);
  while (next) {
    XMLTag* tag = next;
    next = takeNested(Node(*tag), Node(*tag).Parent());
    delete tag;
  }
}

void XMLNode::DropAttributes() noexcept {
  XMLAttrBlock::Release(attributes);
  attributes = nullptr;
}

XMLAttrBlock& XMLNode::OwnAttributes(bool adding) {
  const std::size_t count = attributes ? attributes->count : 0;
  const bool shared = attributes && attributes->holders.load(std::memory_order_acquire) != 1;
  if (attributes && !shared && (!adding || count < attributes->capacity)) return *attributes;
  // Shared, full or none yet: a block of this tag's own, with room to grow when adding.
  const std::size_t room = adding ? (count < 2 ? 2 : count + count / 2 + 1) : count;
  XMLAttrBlock* own = nullptr;
  if (attributes && !shared) {
    // The only holder: the entries move over without copying their texts. A block in an arena
    // stays there, empty, until the arena goes.
    own = XMLAttrBlock::Create(room);
    for (std::size_t i = 0; i < count; ++i) {
      XMLAttrEntry& entry = own->Append();
      entry.name = std::move(attributes->Entries()[i].name);
      entry.value = std::move(attributes->Entries()[i].value);
    }
    own->borrows = attributes->borrows;
  } else if (attributes) {
    own = XMLAttrBlock::CopyOwned(*attributes, room);
  } else {
    own = XMLAttrBlock::Create(room);
  }
  XMLAttrBlock::Release(attributes);
  attributes = own;
  return *own;
}

XMLTag* XMLNode::CopyTag(const XMLTag& sourceTag, XMLTag* owner, detail::XMLArena* tags) {
  auto copyFields = [tags](const XMLNode& from, XMLTag* to) {
    // Nested tags of a document copy live in its arena and borrow what the source borrows; the
    // top tag and tags copied on their own hold texts of their own.
    const bool borrow = tags && to;
    std::unique_ptr<XMLTag> made(borrow ? detail::XMLTagAccess::MakeIn(*tags, to) : new XMLNode(to));
    XMLNode* tag = &Node(*made);
    auto copyText = [borrow](const detail::TagText& text, detail::TagText& into) {
      if (borrow && !text.Owned()) into.Share(text);
      else into.AssignCopy(text);
    };
    copyText(from.name, tag->name);
    copyText(from.value, tag->value);
    if (from.attributes) {
      // Shared until either side writes, unless the texts would outlive what they borrow from.
      tag->attributes = borrow || !from.attributes->borrows
                            ? from.attributes->Share()
                            : XMLAttrBlock::CopyOwned(*from.attributes, from.attributes->count);
    }
    if (from.comment) tag->comment = std::make_unique<String>(*from.comment);
    const std::size_t nested = from.nestedTags.Size();
    if (tags && nested) {
      tag->nestedTags.Lend(static_cast<XMLTag**>(tags->Allocate(nested * sizeof(XMLTag*))), nested);
    }
    return made.release();
  };
  const XMLNode& source = Node(sourceTag);
  XMLTag* root = copyFields(source, owner);
  try {
    // The copy of a tag is complete when it has as many nested tags as its source, so the copy's
    // own count says which nested tag of the source comes next: no stack is needed.
    const XMLNode* from = &source;
    XMLNode* to = &Node(*root);
    for (;;) {
      const std::size_t next = to->nestedTags.Size();
      if (next < from->nestedTags.Size()) {
        const XMLNode* child = &Node(*from->nestedTags[next]);
        std::unique_ptr<XMLTag> copy(copyFields(*child, to));
        to->nestedTags.Add(copy.get());
        to = &Node(*copy.release());
        from = child;
        continue;
      }
      if (to == root) break;
      from = &Node(*from->Parent());
      to = &Node(*to->Parent());
    }
  } catch (...) {
    delete root;
    throw;
  }
  return root;
}

// ---- The public operations: each works on the node behind the tag. --------------------------

String XMLTag::GetName() const { return Node(*this).name.Str(); }
String XMLTag::GetValue() const { return Node(*this).value.Str(); }
String XMLTag::GetComment() const { return Node(*this).comment ? *Node(*this).comment : String(); }

std::size_t XMLTag::NoOfNestedTags() const { return Node(*this).nestedTags.Size(); }

XMLTag* XMLTag::GetNestedTag(std::size_t index) const {
  const detail::TagList& nested = Node(*this).nestedTags;
  return index < nested.Size() ? nested[index] : nullptr;
}

void XMLTag::SetName(String text) { Node(*this).name.Assign(text.View()); }
void XMLTag::SetValue(String text) { Node(*this).value.Assign(text.View()); }

void XMLTag::AddComment(String text) {
  std::unique_ptr<String>& comment = Node(*this).comment;
  if (comment) *comment = std::move(text);
  else comment = std::make_unique<String>(std::move(text));
}

std::size_t XMLTag::NoOfAttributes() const {
  const XMLAttrBlock* attributes = Node(*this).attributes;
  return attributes ? attributes->count : 0;
}

String XMLTag::GetAttrName(std::size_t index) const {
  return index < NoOfAttributes() ? Node(*this).attributes->Entries()[index].name.Str() : String();
}

String XMLTag::GetAttrVal(std::size_t index) const {
  return index < NoOfAttributes() ? Node(*this).attributes->Entries()[index].value.Str() : String();
}

XMLTag* XMLTag::AddAttr(String attrName, String attrValue) {
  detail::TagText attrNameText, attrValueText;
  attrNameText.Assign(attrName.View());
  attrValueText.Assign(attrValue.View());
  XMLAttrEntry& entry = Node(*this).OwnAttributes(true).Append();
  entry.name = std::move(attrNameText);
  entry.value = std::move(attrValueText);
  return this;
}

void XMLTag::SetAttrName(std::size_t index, String text) {
  if (index < NoOfAttributes()) Node(*this).OwnAttributes(false).Entries()[index].name.Assign(text.View());
}

void XMLTag::SetAttrValue(std::size_t index, String text) {
  if (index < NoOfAttributes()) Node(*this).OwnAttributes(false).Entries()[index].value.Assign(text.View());
}

void XMLTag::RemoveAttr(std::size_t index) {
  if (index >= NoOfAttributes()) return;
  XMLAttrBlock& own = Node(*this).OwnAttributes(false);
  XMLAttrEntry* entries = own.Entries();
  for (std::size_t i = index; i + 1 < own.count; ++i) {
    entries[i].name = std::move(entries[i + 1].name);
    entries[i].value = std::move(entries[i + 1].value);
  }
  entries[--own.count].~XMLAttrEntry();
}

void XMLTag::operator>>(int& number) const { GetValue() >> number; }
void XMLTag::operator>>(unsigned int& number) const { GetValue() >> number; }
void XMLTag::operator>>(long& number) const { GetValue() >> number; }
void XMLTag::operator>>(double& number) const { GetValue() >> number; }
void XMLTag::operator>>(String& text) const { text = GetValue(); }
void XMLTag::operator>>(bool& flag) const { flag = Node(*this).value.Equals(u"yes"); }

namespace {

template <class Number> void SetNumber(XMLTag& tag, Number number) {
  String text;
  text << number;
  Node(tag).value.Assign(text.View());
}

} // namespace

void XMLTag::operator<<(const int& number) { SetNumber(*this, number); }
void XMLTag::operator<<(const unsigned int& number) { SetNumber(*this, number); }
void XMLTag::operator<<(const long& number) { SetNumber(*this, number); }

void XMLTag::operator<<(const double& number) {
  String text;
  text << trunczero << whole(1) << dec(15) << number;
  Node(*this).value.Assign(text.View());
}

void XMLTag::operator<<(const String& text) { Node(*this).value.Assign(text.View()); }
void XMLTag::operator<<(const wchar_t* text) { Node(*this).value.Assign(String(text).View()); }
void XMLTag::operator<<(const char16_t* text) { Node(*this).value.Assign(String(text).View()); }
void XMLTag::operator<<(const char* utf8) { Node(*this).value.Assign(String(utf8).View()); }
void XMLTag::operator<<(const bool& flag) { Node(*this).value.Assign(flag ? u"yes" : u"no"); }

XMLTag* XMLTag::NestTag(String tagName, String tagValue, String attrName, String attrValue) {
  std::unique_ptr<XMLTag> tag = XMLNode::Make(this, std::move(tagName), std::move(tagValue));
  Node(*this).nestedTags.Add(tag.get());
  XMLTag* added = tag.release();
  if (!attrName.IsEmpty()) added->AddAttr(std::move(attrName), std::move(attrValue));
  return added;
}

XMLTag* XMLTag::NestTag(String tagName, String tagValue) {
  return NestTag(std::move(tagName), std::move(tagValue), String(), String());
}

XMLTag* XMLTag::NestTag(String tagName) { return NestTag(std::move(tagName), String(), String(), String()); }

XMLTag* XMLTag::NestTag(XMLTag* source) {
  if (!source) return nullptr;
  std::unique_ptr<XMLTag> copy(XMLNode::CopyTag(*source, this, nullptr));
  Node(*this).nestedTags.Add(copy.get());
  return copy.release();
}

XMLTag* XMLTag::NestTagBeforeIndex(String tagName, std::size_t index) {
  detail::TagList& nested = Node(*this).nestedTags;
  if (index == nested.Size()) return NestTag(std::move(tagName));
  std::unique_ptr<XMLTag> tag = XMLNode::Make(this, std::move(tagName));
  nested.Insert(tag.get(), index);
  return tag.release();
}

namespace {

template <class Hit>
XMLTag* FindFirst(const XMLTag& owner, std::size_t* index, Hit isHit) {
  const detail::TagList& tags = Node(owner).nestedTags;
  for (std::size_t i = 0; i < tags.Size(); ++i) {
    if (isHit(Node(*tags[i]))) {
      if (index) *index = i;
      return tags[i];
    }
  }
  return nullptr;
}

} // namespace

XMLTag* XMLTag::FindNestedTag(String tagName, std::size_t* index) const {
  return FindFirst(*this, index, [&](const XMLNode& tag) { return tag.name.Equals(tagName.View()); });
}

XMLTag* XMLTag::FindNestedTagOnValue(String tagValue, std::size_t* index) const {
  return FindFirst(*this, index, [&](const XMLNode& tag) { return tag.value.Equals(tagValue.View()); });
}

XMLTag* XMLTag::FindNestedTagOnAttrValue(String attrValue, int attrIndex, std::size_t* index) const {
  return FindFirst(*this, index, [&](const XMLNode& tag) {
    // A tag without that attribute position is no hit.
    return attrIndex >= 0 && static_cast<std::size_t>(attrIndex) < tag.NoOfAttributes() &&
           tag.attributes->Entries()[attrIndex].value.Equals(attrValue.View());
  });
}

bool XMLTag::IsParentOf(XMLTag* tag) const {
  if (!tag) return false;
  // Depth first, with the walk's position kept on the heap.
  struct Step {
    const XMLNode* owner;
    std::size_t next;
  };
  std::vector<Step> path{{&Node(*this), 0}};
  while (!path.empty()) {
    Step& step = path.back();
    if (step.next == step.owner->nestedTags.Size()) {
      path.pop_back();
      continue;
    }
    const XMLNode* nested = &Node(*step.owner->nestedTags[step.next++]);
    if (nested == tag) return true;
    if (nested->nestedTags.Size() != 0) path.push_back({nested, 0});
  }
  return false;
}

bool XMLTag::IsChildOf(XMLTag*) const { return true; }

void XMLTag::MoveNestedTag(std::size_t from, std::size_t to) {
  detail::TagList& nested = Node(*this).nestedTags;
  if (from >= nested.Size()) return;
  XMLTag* moving = nested[from];
  nested.Remove(from);
  if (to > from) --to;
  nested.Insert(moving, to);
}

void XMLTag::ReplaceNestedTag(std::size_t from, std::size_t to) {
  detail::TagList& nested = Node(*this).nestedTags;
  const std::size_t count = nested.Size();
  if (from >= count || to >= count || from == to) return;
  XMLTag* moving = nested[from];
  nested.Remove(from);
  if (to > from) --to;
  delete nested[to];
  nested.Remove(to);
  nested.Insert(moving, to);
}

void XMLTag::Remove() {
  XMLNode& self = Node(*this);
  if (self.Parent()) {
    detail::TagList& siblings = Node(*self.Parent()).nestedTags;
    for (std::size_t i = 0; i < siblings.Size(); ++i) {
      if (siblings[i] == this) {
        siblings.Remove(i);
        break;
      }
    }
    delete this;
    return;
  }
  self.DestroyNestedTags();
  self.DropAttributes(); // gives up a shared list without copying its entries
}

} // namespace QOR
