// Deterministic documents in the library's dialect that are standard XML as well, for comparing
// readers: one tag per line, tab indentation, CR LF line ends, no entity or character that needs
// escaping, no comments. Values mix ASCII with accented, Greek and Cyrillic letters; records nest
// up to six levels below and including the top tag, with attributes and empty tags.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace QOR::bench {

struct DocumentShape {
  std::uint64_t bytes = 0;
  std::uint64_t lines = 0;
  std::uint64_t elements = 0;
  std::uint64_t attributes = 0;
  std::uint64_t records = 0; // tags directly under the top tag
};

// The UTF-8 text of a document of at least targetBytes bytes; the same target always gives the
// same text. shape, if not null, receives its figures.
std::string GenerateDocument(std::uint64_t targetBytes, DocumentShape* shape = nullptr);

} // namespace QOR::bench
