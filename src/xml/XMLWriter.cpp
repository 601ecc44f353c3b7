// The writer: GetText and Write. One pass over the tree in a loop, appending to one String; the
// format has no escapes, so every name, value and comment goes out as it stands.
#include <qorxmlu/xml/XML.h>

#include "xml/XMLTagAccess.h"

#include <vector>

namespace QOR {

using detail::XMLTagAccess;

namespace {

// Stands for a line end inside the value of a tag with nested tags.
const char16_t* const crlfMarker = u"[crlf]";
const char16_t* const prolog = u"<?xml version=\"1.0\"?>";

void AppendIndent(String& out, std::size_t level) { out.Std().append(level, u'\t'); }

void AppendCommentLine(String& out, const XMLTag& tag, std::size_t level) {
  AppendIndent(out, level);
  out << u"<!-- " << XMLTagAccess::Comment(tag) << u" -->" << newline;
}

// The value with every CR LF, then every remaining LF, replaced by the marker; a lone CR stays.
void AppendMarkedValue(String& out, const String& value) {
  const std::u16string_view text = value.View();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') {
      out += crlfMarker;
      ++i;
    } else if (text[i] == u'\n') {
      out += crlfMarker;
    } else {
      out += text[i];
    }
  }
}

// Writes a tag's start line, or the whole tag if it has no nested tags. True when nested tags and
// an end line are to follow.
bool WriteOpening(String& out, const XMLTag& tag, std::size_t level) {
  if (!XMLTagAccess::Parent(tag)) out << prolog << newline;
  const String& name = XMLTagAccess::Name(tag);
  const String& value = XMLTagAccess::Value(tag);
  const bool hasComment = !XMLTagAccess::Comment(tag).IsEmpty();
  const bool hasNested = XMLTagAccess::NestedTags(tag).Size() != 0;

  AppendIndent(out, level);
  out << u"<" << name;
  const VArray<XMLAttr>& attributes = XMLTagAccess::Attributes(tag);
  for (std::size_t i = 0; i < attributes.Size(); ++i) {
    const XMLAttr& attr = attributes[i];
    out << u" " << attr.name << u"=\"" << attr.value << u"\"";
  }
  if (value.IsEmpty() && !hasNested) {
    // The blank lets the reader end the name there; a comment has no place in this form.
    out << u" />" << newline;
    return false;
  }
  out << u">";
  if (!hasNested) {
    out << value << u"</" << name << u">" << newline;
    if (hasComment) AppendCommentLine(out, tag, level);
    return false;
  }
  out << newline;
  if (hasComment) AppendCommentLine(out, tag, level);
  if (!value.IsEmpty()) {
    AppendMarkedValue(out, value);
    out << newline;
  }
  return true;
}

void WriteClosing(String& out, const XMLTag& tag, std::size_t level) {
  AppendIndent(out, level);
  out << u"</" << XMLTagAccess::Name(tag) << u">" << newline;
}

// Appends the text of the tree under top; the open tags wait on a heap stack.
void WriteTree(String& out, const XMLTag& top) {
  struct Step {
    const XMLTag* tag;
    std::size_t next;
  };
  std::vector<Step> path;
  if (WriteOpening(out, top, 0)) path.push_back({&top, 0});
  while (!path.empty()) {
    const std::size_t level = path.size() - 1;
    Step& step = path.back();
    const SVArray<XMLTag*>& nested = XMLTagAccess::NestedTags(*step.tag);
    if (step.next < nested.Size()) {
      const XMLTag* child = nested[step.next++];
      if (WriteOpening(out, *child, level + 1)) path.push_back({child, 0});
    } else {
      WriteClosing(out, *step.tag, level);
      path.pop_back();
    }
  }
}

} // namespace

String XML::GetText() const {
  String text;
  if (topTag) WriteTree(text, *topTag);
  return text;
}

void XML::Write(FormatableTextFile& file) const {
  if (!topTag) {
    file.text << u"No top tag";
    return;
  }
  // Written straight into the buffer; a failure takes back what this call added.
  const std::size_t before = file.text.Len();
  try {
    WriteTree(file.text, *topTag);
  } catch (...) {
    file.text.Std().resize(before);
    throw;
  }
}

ErrorInfo* XML::Write(String path) const {
  FormatableTextFile file(std::move(path));
  if (ErrorInfo* error = file.Open(false)) return error;
  Write(file);
  ErrorInfo* flushError = file.FlushFile(false, BaseFile::UTF8);
  return SafeConcat(flushError, file.Close());
}

} // namespace QOR
