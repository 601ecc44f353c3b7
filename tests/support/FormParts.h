// What the test servers and the fuzz targets hold the library's output against, written from the
// formats rather than from the library: a multipart/form-data body taken apart strictly (RFC 2046
// framing, RFC 7578 headers), and the Base64 text of bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace QOR::test {

struct FormPart {
  std::string name;
  std::optional<std::string> fileName;
  std::string contentType;
  std::string transferEncoding;
  std::string content;
  bool operator==(const FormPart&) const = default;
};

namespace form {

// Reads form-data; name="..."[; filename="..."] from left to right; false when malformed.
inline bool ParseDisposition(std::string_view value, FormPart& part) {
  constexpr std::string_view lead = "form-data; name=\"", file = "; filename=\"";
  if (!value.starts_with(lead)) return false;
  value.remove_prefix(lead.size());
  std::size_t quote = value.find('"');
  if (quote == std::string_view::npos) return false;
  part.name = value.substr(0, quote);
  value.remove_prefix(quote + 1);
  if (value.empty()) return true;
  if (!value.starts_with(file) || !value.ends_with('"') || value.size() < file.size() + 1) return false;
  part.fileName = std::string(value.substr(file.size(), value.size() - file.size() - 1));
  return true;
}

// One part: header lines, an empty line, the content. Nullopt when the headers are malformed.
inline std::optional<FormPart> ParsePart(std::string_view text) {
  std::size_t split = text.find("\r\n\r\n");
  if (split == std::string_view::npos) return std::nullopt;
  FormPart part;
  part.content = std::string(text.substr(split + 4));
  std::string_view headers = text.substr(0, split + 2);
  bool disposition = false;
  while (!headers.empty()) {
    std::size_t end = headers.find("\r\n");
    std::string_view line = headers.substr(0, end);
    headers.remove_prefix(end + 2);
    std::size_t colon = line.find(": ");
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view key = line.substr(0, colon), value = line.substr(colon + 2);
    if (key == "Content-Disposition") {
      if (!ParseDisposition(value, part)) return std::nullopt;
      disposition = true;
    } else if (key == "Content-Type") {
      part.contentType = value;
    } else if (key == "Content-Transfer-Encoding") {
      part.transferEncoding = value;
    }
  }
  if (!disposition) return std::nullopt;
  return part;
}

} // namespace form

// Splits a body at its delimiters. An empty preamble and no epilogue are all the library sends;
// anything else is an error (nullopt).
inline std::optional<std::vector<FormPart>> ParseForm(std::string_view body, std::string_view boundary) {
  const std::string delimiter = "\r\n--" + std::string(boundary);
  std::string framed = "\r\n" + std::string(body);
  std::string_view rest = framed;
  // The first delimiter may stand at the very start, or behind one line end (empty preamble).
  if (rest.starts_with("\r\n" + delimiter)) rest.remove_prefix(2);
  if (!rest.starts_with(delimiter)) return std::nullopt;
  std::vector<FormPart> parts;
  for (;;) {
    rest.remove_prefix(delimiter.size());
    if (rest == "--") return parts;
    if (!rest.starts_with("\r\n")) return std::nullopt;
    rest.remove_prefix(2);
    std::size_t next = rest.find(delimiter);
    if (next == std::string_view::npos) return std::nullopt;
    auto part = form::ParsePart(rest.substr(0, next));
    if (!part) return std::nullopt;
    parts.push_back(std::move(*part));
    rest.remove_prefix(next);
  }
}

inline std::string Base64Text(std::string_view bytes) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    unsigned group = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 2]);
    text += digits[group >> 18 & 63];
    text += digits[group >> 12 & 63];
    text += i + 1 < bytes.size() ? digits[group >> 6 & 63] : '=';
    text += i + 2 < bytes.size() ? digits[group & 63] : '=';
  }
  return text;
}

} // namespace QOR::test
