// The header lines of one request, in the order they go on the wire, with the modifier rules
// of HttpAddRequestHeaders.
#pragma once

#include <qorinet/wininet.h>

#include <string>
#include <string_view>
#include <vector>

namespace QOR::inet {

class HeaderList {
public:
  struct Field {
    std::string name;
    std::string value;
  };

  // Applies CR LF separated "Name: value" lines with HTTP_ADDREQ_FLAG_* modifiers. Returns 0, or
  // the WinInet error of the first line that could not be applied (lines before it stay applied).
  // REPLACE of a missing header adds it; REPLACE with an empty value removes the header, and
  // fails with ERROR_HTTP_HEADER_NOT_FOUND when there is none.
  DWORD Apply(std::string_view lines, DWORD modifiers);
  // Replaces the value of `name`, or appends the header when there is none.
  void Set(std::string_view name, std::string_view value);
  // Appends the header only when there is none of that name.
  void AddIfMissing(std::string_view name, std::string_view value);
  // The value of the first header called `name` (any case), or null.
  const std::string* Find(std::string_view name) const;
  const std::vector<Field>& Fields() const { return fields; }

private:
  DWORD ApplyLine(std::string_view line, DWORD modifiers);
  std::vector<Field>::iterator Locate(std::string_view name);

  std::vector<Field> fields;
};

} // namespace QOR::inet
