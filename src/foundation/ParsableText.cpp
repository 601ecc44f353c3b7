#include <qorxmlu/foundation/ParsableText.h>

namespace QOR {

namespace {
bool IsBlank(char16_t unit) { return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n'; }
} // namespace

bool ParsableText::GetNextElem(String* element, char16_t separator) {
  std::u16string_view all = text.View();
  if (lineMode || separator) {
    if (position >= all.size()) return false;
    char16_t end = separator ? separator : u'\n';
    std::size_t stop = all.find(end, position);
    if (stop == std::u16string_view::npos) stop = all.size();
    std::size_t next = stop + 1;
    if (!separator && stop > position && all[stop - 1] == u'\r') --stop;
    if (element) element->Std().assign(all.substr(position, stop - position));
    position = next;
    return true;
  }
  while (position < all.size() && IsBlank(all[position])) ++position;
  if (position >= all.size()) return false;
  std::size_t start = position;
  while (position < all.size() && !IsBlank(all[position])) ++position;
  if (element) element->Std().assign(all.substr(start, position - start));
  return true;
}

} // namespace QOR
