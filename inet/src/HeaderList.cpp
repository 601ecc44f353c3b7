#include "HeaderList.h"

#include <algorithm>

namespace QOR::inet {

namespace {

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return Lower(x) == Lower(y); });
}

bool IsTokenChar(char c) {
  return c > 0x20 && c < 0x7F && c != ':' && c != '(' && c != ')' && c != '<' && c != '>' && c != '@' &&
         c != ',' && c != ';' && c != '\\' && c != '"' && c != '/' && c != '[' && c != ']' && c != '?' &&
         c != '=' && c != '{' && c != '}';
}

} // namespace

DWORD HeaderList::Apply(std::string_view lines, DWORD modifiers) {
  while (!lines.empty()) {
    std::size_t end = lines.find('\n');
    std::string_view line = lines.substr(0, end);
    lines = end == std::string_view::npos ? std::string_view() : lines.substr(end + 1);
    if (Trim(line).empty()) continue;
    if (DWORD error = ApplyLine(line, modifiers)) return error;
  }
  return 0;
}

DWORD HeaderList::ApplyLine(std::string_view line, DWORD modifiers) {
  std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return ERROR_HTTP_INVALID_HEADER;
  std::string_view name = Trim(line.substr(0, colon));
  std::string_view value = Trim(line.substr(colon + 1));
  if (name.empty() || !std::all_of(name.begin(), name.end(), IsTokenChar)) return ERROR_HTTP_INVALID_HEADER;
  auto found = Locate(name);
  bool exists = found != fields.end();

  if (modifiers & HTTP_ADDREQ_FLAG_REPLACE) {
    if (value.empty()) {
      if (!exists) return ERROR_HTTP_HEADER_NOT_FOUND;
      fields.erase(found);
    } else if (exists) {
      found->value.assign(value);
    } else {
      fields.push_back({std::string(name), std::string(value)});
    }
    return 0;
  }
  if (modifiers & HTTP_ADDREQ_FLAG_ADD_IF_NEW) {
    if (exists) return ERROR_HTTP_HEADER_ALREADY_EXISTS;
    fields.push_back({std::string(name), std::string(value)});
    return 0;
  }
  if (exists && (modifiers & (HTTP_ADDREQ_FLAG_COALESCE_WITH_COMMA | HTTP_ADDREQ_FLAG_COALESCE_WITH_SEMICOLON))) {
    found->value += (modifiers & HTTP_ADDREQ_FLAG_COALESCE_WITH_COMMA) ? ", " : "; ";
    found->value.append(value);
    return 0;
  }
  fields.push_back({std::string(name), std::string(value)});
  return 0;
}

void HeaderList::Set(std::string_view name, std::string_view value) {
  auto found = Locate(name);
  if (found != fields.end()) {
    found->value.assign(value);
  } else {
    fields.push_back({std::string(name), std::string(value)});
  }
}

void HeaderList::AddIfMissing(std::string_view name, std::string_view value) {
  if (Locate(name) == fields.end()) fields.push_back({std::string(name), std::string(value)});
}

const std::string* HeaderList::Find(std::string_view name) const {
  for (const Field& field : fields) {
    if (SameName(field.name, name)) return &field.value;
  }
  return nullptr;
}

std::vector<HeaderList::Field>::iterator HeaderList::Locate(std::string_view name) {
  return std::find_if(fields.begin(), fields.end(), [&](const Field& field) { return SameName(field.name, name); });
}

} // namespace QOR::inet
