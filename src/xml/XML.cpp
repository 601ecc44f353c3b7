// The document object: construction, copies and the data version check. Reading and writing live
// in XMLReader.cpp and XMLWriter.cpp.
#include <qorxmlu/xml/XML.h>

#include "xml/XMLTagAccess.h"

#include <atomic>
#include <utility>

namespace QOR {

using detail::XMLTagAccess;

namespace {

// The highest data version the application handles. Set once by the host; atomic only so that a
// host that sets it while another thread checks stays well defined.
std::atomic<int> appVersion{1};

const char16_t* const versionAttribute = u"Version";
const char16_t* const versionMessageStart =
    u"Sorry. A data file loaded by this application has been found to have a data version number of ";
const char16_t* const versionMessageSoftware = u". The ";
const char16_t* const versionMessageHandles = u" software handles only data files of version number ";
const char16_t* const versionMessageEnd =
    u" or less. You need to upgrade to the latest software. Please visit our web site. Program may not "
    u"be able to continue because of this error - ";

} // namespace

XML::XML() : topTag(XMLTagAccess::Make(nullptr)) {}

XML::XML(String name) : topTag(XMLTagAccess::Make(nullptr, std::move(name))) {}

XML::XML(String name, String value)
    : topTag(XMLTagAccess::Make(nullptr, std::move(name), std::move(value))) {}

XML::XML(String name, String value, String attrName, String attrValue)
    : topTag(XMLTagAccess::Make(nullptr, std::move(name), std::move(value), std::move(attrName),
                                std::move(attrValue))) {}

XML::XML(const XML& source) : topTag(nullptr) {
  // The copy's nested tags go into an arena of its own and borrow the source's texts.
  tagArena = detail::XMLArena::Create();
  try {
    topTag = XMLTagAccess::CopyDocument(*source.topTag, *tagArena);
  } catch (...) {
    detail::XMLArena::Release(tagArena);
    throw;
  }
  if (source.textArena) textArena = source.textArena->Share();
}

XML& XML::operator=(const XML& source) {
  if (this == &source) return *this;
  // Copy before destroying: a failed copy leaves this document whole, and the new top tag can
  // never have the old one's address.
  XML copy(source);
  delete topTag;
  detail::XMLArena::Release(tagArena);
  detail::XMLArena::Release(textArena);
  topTag = std::exchange(copy.topTag, nullptr);
  tagArena = std::exchange(copy.tagArena, nullptr);
  textArena = std::exchange(copy.textArena, nullptr);
  return *this;
}

XML::~XML() {
  delete topTag; // before the arenas that its nested tags live in
  detail::XMLArena::Release(tagArena);
  detail::XMLArena::Release(textArena);
}

void XML::ClearTree() noexcept {
  topTag->Remove();
  detail::XMLArena::Release(std::exchange(tagArena, nullptr));
  detail::XMLArena::Release(std::exchange(textArena, nullptr));
}

void XML::SetAppVersion(int version) { appVersion.store(version, std::memory_order_relaxed); }

ErrorInfo* XML::CheckVersion(String software, String, int& version) {
  const int handled = appVersion.load(std::memory_order_relaxed);
  version = handled;
  if (!topTag) return nullptr;
  version = 1;
  const std::size_t count = topTag->NoOfAttributes();
  std::size_t i = 0;
  while (i < count && topTag->GetAttrName(i) != versionAttribute) ++i;
  // A document without the attribute is version 1, whatever the application handles.
  if (i == count) return nullptr;
  topTag->GetAttrVal(i) >> version;
  if (version <= handled) return nullptr;
  String message(versionMessageStart);
  message << version << versionMessageSoftware << software << versionMessageHandles << handled
          << versionMessageEnd;
  return MakeError(std::move(message));
}

} // namespace QOR
