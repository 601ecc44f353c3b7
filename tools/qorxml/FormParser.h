// Reads a multipart/form-data body with cpp-httplib's own parser, part by part in body order.
#pragma once

#include <functional>
#include <string>

namespace qorxml {

struct FormPartHead {
  std::string name;
  std::string fileName;
  bool isFile = false;
};

// Calls onPart at the head of each part and onData for its bytes, in order. False if the body is
// no well-formed form for contentType, or a callback returned false.
bool ParseForm(const std::string& contentType, const std::string& body,
               const std::function<bool(const FormPartHead&)>& onPart,
               const std::function<bool(const char*, std::size_t)>& onData);

} // namespace qorxml
