// A document: the tag tree under one top tag, its reader and writer, and the data version check.
//
// The text format is the library's own line-oriented dialect: one tag per line, no escapes,
// comments and empty lines dropped, a prolog line holding xml version="1.0". A document is used
// by one thread at a time. Copies are deep and never share tags; attribute lists are shared
// copy-on-write, so neither copy sees a change made in the other.
//
// Inline: TopTag, which reads a field.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/FormatableTextFile.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/xml/XMLTag.h>

namespace QOR {

class QORXMLU_API XML {
public:
  // A top tag with empty name and value.
  XML();
  // A top tag with that name, untrimmed.
  explicit XML(String name);
  // A top tag with the name and the value, which is trimmed.
  XML(String name, String value);
  // As above, plus one attribute of attrName and attrValue, added even when both are empty.
  XML(String name, String value, String attrName, String attrValue);
  // A deep copy of source's tree.
  XML(const XML& source);
  // Replaces the whole tree, top tag included, with a deep copy of source's; every pointer into
  // the old tree dies. Assigning a document to itself changes nothing.
  XML& operator=(const XML& source);
  // Destroys the whole tree.
  virtual ~XML();

  // The top tag, borrowed. It lives until this document is assigned to or destroyed; reading and
  // tag operations keep it.
  XMLTag* TopTag() const { return topTag; }

  // Sets, for the whole process, the highest data version the application handles (1 at start).
  static void SetAppVersion(int version);
  // Compares the "Version" attribute of the top tag (1 if there is none) with the application's
  // version; version receives it either way. An error names software and asks for an upgrade when
  // the document is newer. The second text is accepted and not used.
  [[nodiscard]] ErrorInfo* CheckVersion(String software, String unused, int& version);

  // Replace the document's content with the one read from the text or from the file at path; null
  // on success. The old nested tags and attributes are gone even when reading fails; what was read
  // completely before a failure stays. The top tag keeps its comment, and its value if the text
  // gives it none.
  [[nodiscard]] ErrorInfo* ReadText(String text);
  [[nodiscard]] ErrorInfo* ReadFile(String path);

  // The whole document as text, lines ending in CR LF and indented by tabs.
  String GetText() const;
  // Appends the document's text to the file object's buffer; the caller flushes and closes.
  void Write(FormatableTextFile& file) const;
  // Writes the document to the file at path as UTF-8; null on success.
  [[nodiscard]] ErrorInfo* Write(String path) const;
  // The first tag, in document order, that the dialect cannot carry, or null when ReadText(GetText())
  // gives back an equal tree (comments aside: the reader drops them); why goes to *reason if given.
  XMLTag* FindUnwritableTag(String* reason = nullptr) const;

private:
  // Destroys the top tag's content and lets go of the storage that its nested tags lived in.
  void ClearTree() noexcept;

  XMLTag* topTag;
  detail::XMLArena* tagArena = nullptr;  // the nested tags of a read or copied tree
  detail::XMLArena* textArena = nullptr; // their texts and attribute lists; shared with copies
};

} // namespace QOR
