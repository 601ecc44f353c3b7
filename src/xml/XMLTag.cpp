// The tag tree. Walks over a tree use the parent pointers or a heap stack, never recursion, so a
// tree of any depth can be copied, searched and destroyed on a small thread stack.
#include <qorxmlu/xml/XMLTag.h>

#include "xml/XMLTagAccess.h"

#include <cstring>

#include <memory>
#include <utility>
#include <vector>

namespace QOR {

using detail::XMLAttrBlock;
using detail::XMLAttrEntry;

std::unique_ptr<XMLTag> XMLTag::Make(XMLTag* owner, String tagName) {
  std::unique_ptr<XMLTag> tag(new XMLTag(owner));
  tag->name.Assign(tagName.View());
  return tag;
}

std::unique_ptr<XMLTag> XMLTag::Make(XMLTag* owner, String tagName, String tagValue) {
  std::unique_ptr<XMLTag> tag = Make(owner, std::move(tagName));
  tag->value.Assign(tagValue.TrimAll().View());
  return tag;
}

std::unique_ptr<XMLTag> XMLTag::Make(XMLTag* owner, String tagName, String tagValue, String attrName,
                                     String attrValue) {
  std::unique_ptr<XMLTag> tag = Make(owner, std::move(tagName), std::move(tagValue));
  tag->AddAttr(std::move(attrName), std::move(attrValue));
  return tag;
}

XMLTag::~XMLTag() {
  DestroyNestedTags();
  DropAttributes();
}

void XMLTag::operator delete(XMLTag* tag, std::destroying_delete_t) {
  if (!tag) return;
  const bool onHeap = !tag->inStorage;
  tag->~XMLTag();
  if (onHeap) ::operator delete(tag);
}

void XMLTag::DestroyNestedTags() noexcept {
  // The tags still to be destroyed form one list, in document order, threaded through their parent
  // pointers, which nothing needs any more. A tag's nested tags take its place at the head of the
  // list before it is destroyed, so the tags go in the order in which a read made them.
  auto takeNested = [](XMLTag& owner, XMLTag* rest) {
    const detail::TagList& nested = owner.nestedTags;
    for (std::size_t i = nested.Size(); i-- > 0;) {
      nested[i]->parent = rest;
      rest = nested[i];
    }
    owner.nestedTags.Clear();
    return rest;
  };
  XMLTag* next = takeNested(*this, nullptr);
  while (next) {
    XMLTag* tag = next;
    next = takeNested(*tag, tag->parent);
    delete tag;
  }
}

void XMLTag::DropAttributes() noexcept {
  XMLAttrBlock::Release(attributes);
  attributes = nullptr;
}

XMLAttrBlock& XMLTag::OwnAttributes(bool adding) {
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

XMLTag* XMLTag::CopyTag(const XMLTag& source, XMLTag* owner, detail::XMLArena* tags) {
  auto copyFields = [tags](const XMLTag& from, XMLTag* to) {
    // Nested tags of a document copy live in its arena and borrow what the source borrows; the
    // top tag and tags copied on their own hold texts of their own.
    const bool borrow = tags && to;
    std::unique_ptr<XMLTag> tag(borrow ? detail::XMLTagAccess::MakeIn(*tags, to) : new XMLTag(to));
    auto copyText = [borrow](const detail::TagText& text, detail::TagText& into) {
      if (borrow && !text.Owned()) into.Borrow(text.View());
      else into.Assign(text.View());
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
    return tag.release();
  };
  XMLTag* root = copyFields(source, owner);
  try {
    // The copy of a tag is complete when it has as many nested tags as its source, so the copy's
    // own count says which nested tag of the source comes next: no stack is needed.
    const XMLTag* from = &source;
    XMLTag* to = root;
    for (;;) {
      const std::size_t next = to->nestedTags.Size();
      if (next < from->nestedTags.Size()) {
        const XMLTag* child = from->nestedTags[next];
        std::unique_ptr<XMLTag> copy(copyFields(*child, to));
        to->nestedTags.Add(copy.get());
        to = copy.release();
        from = child;
        continue;
      }
      if (to == root) break;
      from = from->parent;
      to = to->parent;
    }
  } catch (...) {
    delete root;
    throw;
  }
  return root;
}

XMLTag* XMLTag::GetNestedTag(std::size_t index) const {
  return index < nestedTags.Size() ? nestedTags[index] : nullptr;
}

void XMLTag::AddComment(String text) {
  if (comment) *comment = std::move(text);
  else comment = std::make_unique<String>(std::move(text));
}

std::size_t XMLTag::NoOfAttributes() const { return attributes ? attributes->count : 0; }

String XMLTag::GetAttrName(std::size_t index) const {
  return index < NoOfAttributes() ? String(attributes->Entries()[index].name.View()) : String();
}

String XMLTag::GetAttrVal(std::size_t index) const {
  return index < NoOfAttributes() ? String(attributes->Entries()[index].value.View()) : String();
}

XMLTag* XMLTag::AddAttr(String attrName, String attrValue) {
  detail::TagText attrNameText, attrValueText;
  attrNameText.Assign(attrName.View());
  attrValueText.Assign(attrValue.View());
  XMLAttrEntry& entry = OwnAttributes(true).Append();
  entry.name = std::move(attrNameText);
  entry.value = std::move(attrValueText);
  return this;
}

void XMLTag::SetAttrName(std::size_t index, String text) {
  if (index < NoOfAttributes()) OwnAttributes(false).Entries()[index].name.Assign(text.View());
}

void XMLTag::SetAttrValue(std::size_t index, String text) {
  if (index < NoOfAttributes()) OwnAttributes(false).Entries()[index].value.Assign(text.View());
}

void XMLTag::RemoveAttr(std::size_t index) {
  if (index >= NoOfAttributes()) return;
  XMLAttrBlock& own = OwnAttributes(false);
  XMLAttrEntry* entries = own.Entries();
  for (std::size_t i = index; i + 1 < own.count; ++i) {
    entries[i].name = std::move(entries[i + 1].name);
    entries[i].value = std::move(entries[i + 1].value);
  }
  entries[--own.count].~XMLAttrEntry();
}

void XMLTag::operator>>(bool& flag) const { flag = value.View() == u"yes"; }

void XMLTag::operator<<(const int& number) {
  String text;
  text << number;
  value.Assign(text.View());
}

void XMLTag::operator<<(const unsigned int& number) {
  String text;
  text << number;
  value.Assign(text.View());
}

void XMLTag::operator<<(const long& number) {
  String text;
  text << number;
  value.Assign(text.View());
}

void XMLTag::operator<<(const double& number) {
  String text;
  text << trunczero << whole(1) << dec(15) << number;
  value.Assign(text.View());
}

void XMLTag::operator<<(const bool& flag) { value.Assign(flag ? u"yes" : u"no"); }

XMLTag* XMLTag::NestTag(String tagName, String tagValue, String attrName, String attrValue) {
  std::unique_ptr<XMLTag> tag = Make(this, std::move(tagName), std::move(tagValue));
  nestedTags.Add(tag.get());
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
  std::unique_ptr<XMLTag> copy(CopyTag(*source, this, nullptr));
  nestedTags.Add(copy.get());
  return copy.release();
}

XMLTag* XMLTag::NestTagBeforeIndex(String tagName, std::size_t index) {
  if (index == nestedTags.Size()) return NestTag(std::move(tagName));
  std::unique_ptr<XMLTag> tag = Make(this, std::move(tagName));
  nestedTags.Insert(tag.get(), index);
  return tag.release();
}

namespace {

template <class Hit>
XMLTag* FindFirst(const detail::TagList& tags, std::size_t* index, Hit isHit) {
  for (std::size_t i = 0; i < tags.Size(); ++i) {
    if (isHit(*tags[i])) {
      if (index) *index = i;
      return tags[i];
    }
  }
  return nullptr;
}

} // namespace

XMLTag* XMLTag::FindNestedTag(String tagName, std::size_t* index) const {
  return FindFirst(nestedTags, index, [&](const XMLTag& tag) { return tag.name.View() == tagName.View(); });
}

XMLTag* XMLTag::FindNestedTagOnValue(String tagValue, std::size_t* index) const {
  return FindFirst(nestedTags, index, [&](const XMLTag& tag) { return tag.value.View() == tagValue.View(); });
}

XMLTag* XMLTag::FindNestedTagOnAttrValue(String attrValue, int attrIndex, std::size_t* index) const {
  return FindFirst(nestedTags, index, [&](const XMLTag& tag) {
    // A tag without that attribute position is no hit.
    return attrIndex >= 0 && static_cast<std::size_t>(attrIndex) < tag.NoOfAttributes() &&
           tag.attributes->Entries()[attrIndex].value.View() == attrValue.View();
  });
}

bool XMLTag::IsParentOf(XMLTag* tag) const {
  if (!tag) return false;
  // Depth first, with the walk's position kept on the heap.
  struct Step {
    const XMLTag* owner;
    std::size_t next;
  };
  std::vector<Step> path{{this, 0}};
  while (!path.empty()) {
    Step& step = path.back();
    if (step.next == step.owner->nestedTags.Size()) {
      path.pop_back();
      continue;
    }
    const XMLTag* nested = step.owner->nestedTags[step.next++];
    if (nested == tag) return true;
    if (nested->nestedTags.Size() != 0) path.push_back({nested, 0});
  }
  return false;
}

bool XMLTag::IsChildOf(XMLTag*) const { return true; }

void XMLTag::MoveNestedTag(std::size_t from, std::size_t to) {
  if (from >= nestedTags.Size()) return;
  XMLTag* moving = nestedTags[from];
  nestedTags.Remove(from);
  if (to > from) --to;
  nestedTags.Insert(moving, to);
}

void XMLTag::ReplaceNestedTag(std::size_t from, std::size_t to) {
  const std::size_t count = nestedTags.Size();
  if (from >= count || to >= count || from == to) return;
  XMLTag* moving = nestedTags[from];
  nestedTags.Remove(from);
  if (to > from) --to;
  delete nestedTags[to];
  nestedTags.Remove(to);
  nestedTags.Insert(moving, to);
}

void XMLTag::Remove() {
  if (parent) {
    detail::TagList& siblings = parent->nestedTags;
    for (std::size_t i = 0; i < siblings.Size(); ++i) {
      if (siblings[i] == this) {
        siblings.Remove(i);
        break;
      }
    }
    delete this;
    return;
  }
  DestroyNestedTags();
  DropAttributes(); // gives up a shared list without copying its entries
}

} // namespace QOR
