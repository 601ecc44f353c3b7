// The tag tree. Walks over a tree use the parent pointers or a heap stack, never recursion, so a
// tree of any depth can be copied, searched and destroyed on a small thread stack.
#include <qorxmlu/xml/XMLTag.h>

#include <memory>
#include <utility>
#include <vector>

namespace QOR {

XMLTag::XMLTag(XMLTag* owner, String tagName) : parent(owner), name(std::move(tagName)) {}

XMLTag::XMLTag(XMLTag* owner, String tagName, String tagValue)
    : parent(owner), name(std::move(tagName)), value(std::move(tagValue)) {
  value.TrimAll();
}

XMLTag::XMLTag(XMLTag* owner, String tagName, String tagValue, String attrName, String attrValue)
    : XMLTag(owner, std::move(tagName), std::move(tagValue)) {
  AddAttr(std::move(attrName), std::move(attrValue));
}

XMLTag::~XMLTag() { DestroyNestedTags(); }

void XMLTag::DestroyNestedTags() noexcept {
  // Go down to a leaf, destroy it, drop it from its parent's list and go on from the parent.
  // Taking the last entry each time keeps every step constant in cost.
  XMLTag* current = this;
  for (;;) {
    const std::size_t count = current->nestedTags.Size();
    if (count != 0) {
      current = std::as_const(current->nestedTags)[count - 1];
      continue;
    }
    if (current == this) break;
    XMLTag* up = current->parent;
    delete current;
    up->nestedTags.Truncate(up->nestedTags.Size() - 1);
    current = up;
  }
  nestedTags.Truncate(0);
}

XMLTag* XMLTag::CopyTag(const XMLTag& source, XMLTag* owner) {
  auto copyFields = [](const XMLTag& from, XMLTag* to) {
    auto* tag = new XMLTag(to, from.name);
    tag->attributes = from.attributes; // shared until either side writes
    tag->value = from.value;
    tag->comment = from.comment;
    return tag;
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
        const XMLTag* child = std::as_const(from->nestedTags)[next];
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

String XMLTag::GetAttrName(std::size_t index) const {
  return index < attributes.Size() ? attributes[index].name : String();
}

String XMLTag::GetAttrVal(std::size_t index) const {
  return index < attributes.Size() ? attributes[index].value : String();
}

XMLTag* XMLTag::AddAttr(String attrName, String attrValue) {
  attributes.Add(XMLAttr{std::move(attrName), std::move(attrValue)});
  return this;
}

void XMLTag::SetAttrName(std::size_t index, String text) {
  if (index < attributes.Size()) attributes[index].name = std::move(text);
}

void XMLTag::SetAttrValue(std::size_t index, String text) {
  if (index < attributes.Size()) attributes[index].value = std::move(text);
}

void XMLTag::RemoveAttr(std::size_t index) {
  if (index < attributes.Size()) attributes.Remove(index);
}

void XMLTag::operator>>(bool& flag) const { flag = value == String(u"yes"); }

void XMLTag::operator<<(const int& number) {
  value.SetEmpty();
  value << number;
}

void XMLTag::operator<<(const unsigned int& number) {
  value.SetEmpty();
  value << number;
}

void XMLTag::operator<<(const long& number) {
  value.SetEmpty();
  value << number;
}

void XMLTag::operator<<(const double& number) {
  value.SetEmpty();
  value << trunczero << whole(1) << dec(15) << number;
}

void XMLTag::operator<<(const bool& flag) { value = String(flag ? u"yes" : u"no"); }

XMLTag* XMLTag::NestTag(String tagName, String tagValue, String attrName, String attrValue) {
  std::unique_ptr<XMLTag> tag(new XMLTag(this, std::move(tagName), std::move(tagValue)));
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
  std::unique_ptr<XMLTag> copy(CopyTag(*source, this));
  nestedTags.Add(copy.get());
  return copy.release();
}

XMLTag* XMLTag::NestTagBeforeIndex(String tagName, std::size_t index) {
  if (index == nestedTags.Size()) return NestTag(std::move(tagName));
  std::unique_ptr<XMLTag> tag(new XMLTag(this, std::move(tagName)));
  nestedTags.Insert(tag.get(), index);
  return tag.release();
}

namespace {

template <class Hit>
XMLTag* FindFirst(const SVArray<XMLTag*>& tags, std::size_t* index, Hit isHit) {
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
  return FindFirst(nestedTags, index, [&](const XMLTag& tag) { return tag.name == tagName; });
}

XMLTag* XMLTag::FindNestedTagOnValue(String tagValue, std::size_t* index) const {
  return FindFirst(nestedTags, index, [&](const XMLTag& tag) { return tag.value == tagValue; });
}

XMLTag* XMLTag::FindNestedTagOnAttrValue(String attrValue, int attrIndex, std::size_t* index) const {
  return FindFirst(nestedTags, index, [&](const XMLTag& tag) {
    // A tag without that attribute position is no hit.
    return attrIndex >= 0 && static_cast<std::size_t>(attrIndex) < tag.attributes.Size() &&
           tag.attributes[static_cast<std::size_t>(attrIndex)].value == attrValue;
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
  XMLTag* moving = std::as_const(nestedTags)[from];
  nestedTags.Remove(from);
  if (to > from) --to;
  nestedTags.Insert(moving, to);
}

void XMLTag::ReplaceNestedTag(std::size_t from, std::size_t to) {
  const std::size_t count = nestedTags.Size();
  if (from >= count || to >= count || from == to) return;
  XMLTag* moving = std::as_const(nestedTags)[from];
  nestedTags.Remove(from);
  if (to > from) --to;
  delete std::as_const(nestedTags)[to];
  nestedTags.Remove(to);
  nestedTags.Insert(moving, to);
}

void XMLTag::Remove() {
  if (parent) {
    SVArray<XMLTag*>& siblings = parent->nestedTags;
    for (std::size_t i = 0; i < siblings.Size(); ++i) {
      if (std::as_const(siblings)[i] == this) {
        siblings.Remove(i);
        break;
      }
    }
    delete this;
    return;
  }
  DestroyNestedTags();
  attributes = VArray<XMLAttr>(); // gives up a shared list without copying its records
}

} // namespace QOR
