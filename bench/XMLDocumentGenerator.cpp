#include "XMLDocumentGenerator.h"

#include <array>
#include <string_view>

namespace QOR::bench {

namespace {

// xorshift64*: small, fast and the same everywhere.
class Random {
public:
  std::uint64_t Next() {
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545F4914F6CDD1DULL;
  }
  // 0 .. limit-1
  unsigned Below(unsigned limit) { return static_cast<unsigned>(Next() % limit); }

private:
  std::uint64_t state = 0x9E3779B97F4A7C15ULL;
};

constexpr std::array<std::string_view, 32> words{
    "Müller",  "Straße",   "Ölfilter", "Größe",   "Ångström", "Øresund", "Crème",  "brûlée",
    "Ærø",     "Ελλάδα",   "Москва",   "Zürich",  "Łódź",     "Kraków",  "Señor",  "Ñandú",
    "café",    "naïve",    "Fjäll",    "Göteborg", "Bolt",    "Filter",  "Cable",  "Steel",
    "Washer",  "Bracket",  "Hinge",    "Spring",  "Valve",    "Gasket",  "Sensor", "Relay"};
constexpr std::array<std::string_view, 4> statuses{"open", "paid", "shipped", "closed"};

class Writer {
public:
  Writer(std::string& out, DocumentShape& shape) : out(out), shape(shape) {}

  void Words(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      if (i) out += ' ';
      out += words[random.Below(words.size())];
    }
  }
  void Number(std::uint64_t n) { out += std::to_string(n); }

  // "\t\t<Name" with level tabs.
  void Open(int level, std::string_view name) {
    out.append(static_cast<std::size_t>(level), '\t');
    out += '<';
    out += name;
    ++shape.elements;
  }
  // Starts an attribute; the caller writes the value and calls EndAttr.
  void Attr(std::string_view name) {
    out += ' ';
    out += name;
    out += "=\"";
    ++shape.attributes;
  }
  void EndAttr() { out += '"'; }
  void EndLine() {
    out += "\r\n";
    ++shape.lines;
  }
  void CloseStart() { out += '>'; }
  void EmptyEnd() {
    out += " />";
    EndLine();
  }
  void EndTag(std::string_view name) {
    out += "</";
    out += name;
    out += '>';
  }
  void Close(int level, std::string_view name) {
    out.append(static_cast<std::size_t>(level), '\t');
    EndTag(name);
    EndLine();
  }

  // A single-line item with a value.
  void Item(std::uint64_t id) {
    Open(1, "Item");
    Attr("Id"), Number(id), EndAttr();
    Attr("Sku"), Sku(), EndAttr();
    Attr("Price"), Price(), EndAttr();
    CloseStart();
    Words(4 + random.Below(3));
    EndTag("Item");
    EndLine();
  }

  // An order: a customer, one to three lines, sometimes a note and an empty flag tag.
  void Order(std::uint64_t id) {
    Open(1, "Order");
    Attr("Id"), Number(id), EndAttr();
    Attr("Status"), out += statuses[random.Below(statuses.size())], EndAttr();
    Attr("Date"), Date(), EndAttr();
    CloseStart();
    EndLine();
    Open(2, "Customer");
    Attr("Name"), Words(2), EndAttr();
    Attr("City"), Words(1), EndAttr();
    EmptyEnd();
    const unsigned lines = 1 + random.Below(4);
    for (unsigned i = 0; i < lines; ++i) {
      Open(2, "Line");
      Attr("Sku"), Sku(), EndAttr();
      CloseStart();
      Words(3 + random.Below(3));
      EndTag("Line");
      EndLine();
    }
    if (random.Below(2)) {
      Open(2, "Note");
      CloseStart();
      Words(3);
      EndTag("Note");
      EndLine();
    }
    if (random.Below(3) == 0) {
      Open(2, "Paid");
      EmptyEnd();
    }
    Close(1, "Order");
  }

  // A group nested down to the sixth level: Group, Section, Shelf, Slot, Part.
  void Group(std::uint64_t id) {
    Open(1, "Group");
    Attr("Id"), Number(id), EndAttr();
    Attr("Kind"), Words(1), EndAttr();
    CloseStart();
    EndLine();
    Open(2, "Section");
    Attr("Name"), Words(1), EndAttr();
    CloseStart();
    EndLine();
    Open(3, "Shelf");
    Attr("Row"), Number(random.Below(40)), EndAttr();
    Attr("Bin"), Number(random.Below(400)), EndAttr();
    CloseStart();
    EndLine();
    Open(4, "Slot");
    Attr("Pos"), Number(random.Below(12)), EndAttr();
    CloseStart();
    EndLine();
    const unsigned parts = 1 + random.Below(3);
    for (unsigned i = 0; i < parts; ++i) {
      Open(5, "Part");
      Attr("Code"), Sku(), EndAttr();
      CloseStart();
      Words(2 + random.Below(2));
      EndTag("Part");
      EndLine();
    }
    Close(4, "Slot");
    Close(3, "Shelf");
    Close(2, "Section");
    Close(1, "Group");
  }

private:
  void Sku() {
    out += static_cast<char>('A' + random.Below(26));
    out += static_cast<char>('A' + random.Below(26));
    out += '-';
    Number(1000 + random.Below(9000));
  }
  void Date() {
    out += "2024-";
    const unsigned month = 1 + random.Below(12), day = 1 + random.Below(28);
    if (month < 10) out += '0';
    Number(month);
    out += '-';
    if (day < 10) out += '0';
    Number(day);
  }
  void Price() {
    Number(random.Below(500));
    out += '.';
    Number(10 + random.Below(90));
  }

  std::string& out;
  DocumentShape& shape;

public:
  Random random;
};

} // namespace

std::string GenerateDocument(std::uint64_t targetBytes, DocumentShape* shapeOut) {
  DocumentShape shape;
  std::string out;
  out.reserve(static_cast<std::size_t>(targetBytes + 4096));
  Writer writer(out, shape);
  out += "<?xml version=\"1.0\"?>";
  writer.EndLine();
  writer.Open(0, "Inventory");
  writer.Attr("Version"), out += "1", writer.EndAttr();
  writer.CloseStart();
  writer.EndLine();
  const std::string end = "</Inventory>\r\n";
  for (std::uint64_t id = 1; out.size() + end.size() < targetBytes; ++id) {
    const unsigned kind = writer.random.Below(100);
    if (kind < 25) writer.Item(id);
    else if (kind < 80) writer.Order(id);
    else writer.Group(id);
    ++shape.records;
  }
  writer.Close(0, "Inventory");
  shape.bytes = out.size();
  if (shapeOut) *shapeOut = shape;
  return out;
}

} // namespace QOR::bench
