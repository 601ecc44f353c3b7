// Helpers for the XML tests: documents from lines, and a one-line picture of a tree.
#pragma once

#include <qorxmlu/xml/XML.h>

#include "StringPrinter.h"

#include <initializer_list>
#include <memory>
#include <string>

namespace QOR::test {

// The lines joined by CR LF, behind the prolog.
inline String Document(std::initializer_list<const char16_t*> lines) {
  String text(u"<?xml version=\"1.0\"?>\r\n");
  for (const char16_t* line : lines) text << line << u"\r\n";
  return text;
}

// The error's text, or "" for success; deletes the error.
inline std::string Outcome(ErrorInfo* error) {
  std::unique_ptr<ErrorInfo> owned(error);
  return owned ? owned->Text().ToUtf8() : std::string();
}

// name(attr=value,...)[value]{nested nested}, each part only where there is something to show.
inline std::string Picture(const XMLTag& tag) {
  std::string text = tag.GetName().ToUtf8();
  if (tag.NoOfAttributes()) {
    text += '(';
    for (std::size_t i = 0; i < tag.NoOfAttributes(); ++i) {
      if (i) text += ',';
      text += tag.GetAttrName(i).ToUtf8() + '=' + tag.GetAttrVal(i).ToUtf8();
    }
    text += ')';
  }
  if (!tag.GetValue().IsEmpty()) text += '[' + tag.GetValue().ToUtf8() + ']';
  if (tag.NoOfNestedTags()) {
    text += '{';
    for (std::size_t i = 0; i < tag.NoOfNestedTags(); ++i) {
      if (i) text += ' ';
      text += Picture(*tag.GetNestedTag(i));
    }
    text += '}';
  }
  return text;
}

inline std::string Picture(const XML& document) { return Picture(*document.TopTag()); }

} // namespace QOR::test
