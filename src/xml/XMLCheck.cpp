// The round-trip check: FindUnwritableTag. The writer escapes nothing, so each tag's lines are
// held against what the reader makes of them; the rules follow ReadStartLine and ReadOn in
// XMLReader.cpp and the line forms of XMLWriter.cpp.
#include <qorxmlu/xml/XML.h>

#include "xml/XMLTagAccess.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace QOR {

using detail::XMLAttrBlock;
using detail::XMLTagAccess;

namespace {

using View = std::u16string_view;

// Why a tag does not read back as it is, one text per rule.
namespace why {
const char16_t* const emptyName = u"its name is empty";
const char16_t* const nameBlank = u"its name holds a blank or a tab";
const char16_t* const nameMarker = u"its name holds \">\", or starts with \"/\"";
const char16_t* const nameEndOpen = u"its name holds \"</\"";
const char16_t* const nameSlashEnd = u"its name ends in \"/\"";
const char16_t* const lineEnd = u"its name, value or an attribute holds a line end";
const char16_t* const commentMarker = u"its name, value or an attribute holds \"!--\"";
const char16_t* const attrName = u"an attribute name holds \"=\", \"/\" or \">\", or starts with a blank";
const char16_t* const attrValue = u"an attribute value holds a double quote, \"/\" or \">\"";
const char16_t* const valueAndNested = u"it has both a value and nested tags";
const char16_t* const valueMarker = u"its value holds \"</\" or \"/>\"";
const char16_t* const parentName = u"it is written on one line and has its parent's name, so it ends its parent";
const char16_t* const commentLines = u"its comment holds a line end, so the lines after it are read as content";
} // namespace why

bool Has(View text, View part) { return text.find(part) != View::npos; }
bool HasAny(View text, View units) { return text.find_first_of(units) != View::npos; }

// The blanks that the reader trims from the front of an attribute name.
bool StartsWithBlank(View text) { return !text.empty() && Has(u" \t\r\n\v\f", text.substr(0, 1)); }

// Whether the reader drops every line of the comment: the first holds "<!--", and each later one
// must be empty (a CR before its line end goes) or hold "!--" itself. The last ends in " -->".
bool CommentLinesDrop(View comment) {
  std::size_t lineEnd = comment.find(u'\n');
  while (lineEnd != View::npos) {
    const std::size_t from = lineEnd + 1;
    lineEnd = comment.find(u'\n', from);
    View line = comment.substr(from, lineEnd == View::npos ? View::npos : lineEnd - from);
    if (lineEnd != View::npos && line.ends_with(u'\r')) line.remove_suffix(1);
    if (!Has(line, u"!--") && (lineEnd == View::npos || !line.empty())) return false;
  }
  return true;
}

// The units of a text, decoded into room when it is held as bytes.
View Units(const detail::TagText& text, std::u16string& room) {
  if (!text.IsUtf8()) return text.View();
  room.resize(detail::TwoByteUtf8Units(text.Utf8()));
  detail::DecodeTwoByteUtf8(text.Utf8(), room.data(), room.size());
  return room;
}

// Room for the texts of one tag at a time, kept from tag to tag.
struct Room {
  std::u16string name, value, attrName, attrValue;
};

// Why the tag's own lines would not give it back, or null. The tag's texts come back only from
// single lines that the reader keeps, so a line end or "!--" in any of them is fatal; the rest
// follows the form the writer gives the tag: <a />, <a>value</a>, or a start and an end line.
const char16_t* Flaw(const XMLTag& tag, Room& room) {
  const View name = Units(XMLTagAccess::Name(tag), room.name);
  const View value = Units(XMLTagAccess::Value(tag), room.value);
  const XMLTag* parent = XMLTagAccess::Parent(tag);
  const bool nested = XMLTagAccess::NestedTags(tag).Size() != 0;
  const bool oneLine = !nested && !value.empty();
  const XMLAttrBlock* attributes = XMLTagAccess::Attributes(tag);
  const std::uint32_t noOfAttributes = attributes ? attributes->count : 0;

  if (name.empty()) return why::emptyName;
  if (Has(name, u"\n") || (oneLine && Has(value, u"\n"))) return why::lineEnd;
  if (Has(name, u"!--") || (oneLine && Has(value, u"!--"))) return why::commentMarker;
  if (HasAny(name, u" \t")) return why::nameBlank;
  if (Has(name, u">") || name.front() == u'/') return why::nameMarker;
  if ((oneLine || nested) && Has(name, u"</")) return why::nameEndOpen;
  // "<a/>" or "</a/>" holds "/>", which makes an empty tag of the line.
  if (name.back() == u'/' && (oneLine || (nested && noOfAttributes == 0))) return why::nameSlashEnd;
  for (std::uint32_t i = 0; i < noOfAttributes; ++i) {
    const View attrName = Units(attributes->Entries()[i].name, room.attrName);
    const View attrValue = Units(attributes->Entries()[i].value, room.attrValue);
    if (Has(attrName, u"\n") || Has(attrValue, u"\n")) return why::lineEnd;
    if (Has(attrName, u"!--") || Has(attrValue, u"!--")) return why::commentMarker;
    if (HasAny(attrName, u"=/>") || StartsWithBlank(attrName)) return why::attrName;
    if (HasAny(attrValue, u"\"/>")) return why::attrValue;
  }
  if (oneLine && (Has(value, u"</") || Has(value, u"/>"))) return why::valueMarker;
  if (oneLine && parent && XMLTagAccess::Name(*parent).Equals(name)) return why::parentName;
  // The comment line follows the start line; a one-line top tag ends the reading before it.
  const bool commentWritten = nested || (oneLine && parent);
  if (commentWritten && !CommentLinesDrop(XMLTagAccess::Comment(tag))) return why::commentLines;
  if (nested && !value.empty()) return why::valueAndNested;
  return nullptr;
}

bool SameTag(const XMLTag& a, const XMLTag& b) {
  if (!XMLTagAccess::Name(a).Equals(XMLTagAccess::Name(b))) return false;
  if (!XMLTagAccess::Value(a).Equals(XMLTagAccess::Value(b))) return false;
  const XMLAttrBlock* aAttributes = XMLTagAccess::Attributes(a);
  const XMLAttrBlock* bAttributes = XMLTagAccess::Attributes(b);
  const std::uint32_t count = aAttributes ? aAttributes->count : 0;
  if (count != (bAttributes ? bAttributes->count : 0)) return false;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!aAttributes->Entries()[i].name.Equals(bAttributes->Entries()[i].name)) return false;
    if (!aAttributes->Entries()[i].value.Equals(bAttributes->Entries()[i].value)) return false;
  }
  return XMLTagAccess::NestedTags(a).Size() == XMLTagAccess::NestedTags(b).Size();
}

// Whether the trees hold the same names, values, attributes and nesting; comments aside.
bool SameTree(const XMLTag& a, const XMLTag& b) {
  std::vector<std::pair<const XMLTag*, const XMLTag*>> pending{{&a, &b}};
  while (!pending.empty()) {
    const auto [x, y] = pending.back();
    pending.pop_back();
    if (!SameTag(*x, *y)) return false;
    const detail::TagList& xNested = XMLTagAccess::NestedTags(*x);
    const detail::TagList& yNested = XMLTagAccess::NestedTags(*y);
    for (std::size_t i = 0; i < xNested.Size(); ++i) pending.push_back({xNested[i], yNested[i]});
  }
  return true;
}

} // namespace

XMLTag* XML::FindUnwritableTag(String* reason) const {
  if (!topTag) return nullptr;
  const XMLTag* suspect = nullptr;
  const char16_t* flaw = nullptr;
  std::vector<const XMLTag*> pending{topTag};
  Room room;
  while (!pending.empty() && !flaw) {
    suspect = pending.back();
    pending.pop_back();
    flaw = Flaw(*suspect, room);
    const detail::TagList& nested = XMLTagAccess::NestedTags(*suspect);
    for (std::size_t i = nested.Size(); i-- > 0;) pending.push_back(nested[i]);
  }
  if (!flaw) return nullptr;
  // Up to the first flaw every line reads as written, and what a flawed line makes of its tag is
  // final. Only the stray lines of a comment can, in rare trees, read as what the tree holds
  // anyway, so that case alone is settled by reading the text back.
  if (flaw == why::commentLines) {
    XML back;
    const ErrorPtr error{back.ReadText(GetText())};
    if (!error && SameTree(*topTag, *back.topTag)) return nullptr;
  }
  if (reason) *reason = flaw;
  return const_cast<XMLTag*>(suspect);
}

} // namespace QOR
