// Where the tags and texts of a read or copied document live, and the shared attribute lists.
//
// A document that reads text puts its tags into one arena and its texts and attribute lists into
// another; a copy of the document makes its own tag arena and shares the text arena, which
// counts its holders. An arena's memory goes back only when its last holder lets go, so a tag
// removed from a read document keeps its room until the document is read again or destroyed.
// The top tag never borrows from an arena: it outlives every read.
#pragma once

#include <qorxmlu/xml/XMLTag.h>

#include <qorxmlu/foundation/String.h>

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace QOR::detail {

// One text of a tag (a name, a value, an attribute's name or value): units of its own on the
// heap, or units borrowed from the storage of the document that holds the tag. A read document
// may keep a text that is all ASCII and two-byte UTF-8 sequences (most European text) as those
// bytes instead: half the room of its units, no decoding while reading, and a file written with
// the same bytes. Such a text decodes to exactly one unit per byte that is not a continuation
// byte, so its length in units is known without decoding it.
//
// Twelve bytes, so that a tag and an attribute take less room: a text holds fewer than 2^30 units
// (a longer one is refused with std::bad_alloc, as if the memory had run out).
#pragma pack(push, 4)
class TagText {
public:
  TagText() noexcept = default;
  TagText(const TagText&) = delete;
  TagText& operator=(const TagText&) = delete;
  TagText(TagText&& other) noexcept : data(other.data), length(other.length) {
    other.data = nullptr;
    other.length = 0;
  }
  TagText& operator=(TagText&& other) noexcept {
    if (this != &other) {
      Release();
      data = other.data;
      length = other.length;
      other.data = nullptr;
      other.length = 0;
    }
    return *this;
  }
  ~TagText() { Release(); }

  // Held as UTF-8 bytes (see above), which Utf8 gives; otherwise View gives the units.
  bool IsUtf8() const noexcept { return (length & utf8Bit) != 0; }
  std::string_view Utf8() const noexcept { return {static_cast<const char*>(data), Size()}; }
  std::u16string_view View() const noexcept {
    assert(!IsUtf8());
    return {static_cast<const char16_t*>(data), Size()};
  }
  // The text as String, in either form.
  String Str() const;
  // Whether the text's units are these, or another text's, in either form.
  bool Equals(std::u16string_view text) const noexcept;
  bool Equals(const TagText& other) const;
  // Calls f with the bytes (std::string_view) or the units (std::u16string_view).
  template <class F>
  decltype(auto) Visit(F&& f) const {
    return IsUtf8() ? f(Utf8()) : f(View());
  }

  bool IsEmpty() const noexcept { return Size() == 0; }
  bool Owned() const noexcept { return (length & ownedBit) != 0; }
  // Holds a heap copy of text.
  void Assign(std::u16string_view text);
  // Holds a heap copy of the other text's units.
  void AssignCopy(const TagText& other);
  // Points at units (Borrow) or at bytes of the form above (BorrowUtf8) that outlive this text;
  // nothing is copied.
  void Borrow(std::u16string_view text) noexcept { // text is at most maxLength long
    if (Owned()) Release();
    data = text.data();
    length = static_cast<std::uint32_t>(text.size());
  }
  void BorrowUtf8(std::string_view bytes) noexcept { // of the form above, at most maxLength long
    if (Owned()) Release();
    data = bytes.data();
    length = static_cast<std::uint32_t>(bytes.size()) | utf8Bit;
  }
  // Points at what other points at, in its form; other owns nothing.
  void Share(const TagText& other) noexcept {
    if (Owned()) Release();
    data = other.data;
    length = other.length & ~ownedBit;
  }

  // The longest text held.
  static constexpr std::size_t maxLength = 0x3FFFFFFF;

private:
  void Release() noexcept;
  // Units or bytes, as held.
  std::size_t Size() const noexcept { return length & maxLength; }

  static constexpr std::uint32_t ownedBit = 0x80000000u;
  static constexpr std::uint32_t utf8Bit = 0x40000000u;
  const void* data = nullptr;
  std::uint32_t length = 0; // the top bit marks units of its own, the next one UTF-8 bytes
};
#pragma pack(pop)
static_assert(sizeof(TagText) == 12, "a pointer and a 32-bit length");

// The units that bytes of the form a TagText may hold (all ASCII and complete two-byte UTF-8
// sequences, leads C2..DF) decode to: one per byte that is not a continuation byte.
std::size_t TwoByteUtf8Units(std::string_view bytes) noexcept;
// Decodes such bytes into units (as many as TwoByteUtf8Units says) and returns their count; room
// units may be written at units (at least that count: past it, as scratch).
std::size_t DecodeTwoByteUtf8(std::string_view bytes, char16_t* units, std::size_t room) noexcept;

// The nested tags of one tag, in document order. Never shared. The block is the list's own on the
// heap, or lent by the document's storage (a read or copied tree), used in place while it has
// room.
class TagList {
public:
  TagList() noexcept = default;
  TagList(const TagList&) = delete;
  TagList& operator=(const TagList&) = delete;
  ~TagList() { Clear(); }

  std::size_t Size() const noexcept { return count; }
  XMLTag* operator[](std::size_t index) const noexcept { return items[index]; }

  // An index at or beyond the end appends.
  void Insert(XMLTag* tag, std::size_t index);
  void Add(XMLTag* tag) {
    if (count < (capacity & ~lentBit)) items[count++] = tag;
    else Insert(tag, count);
  }
  void Remove(std::size_t index) noexcept;
  // Empties the list and gives up its block; the tags are the caller's.
  void Clear() noexcept;
  // Empties the list and takes a lent block with room for room tags.
  void Lend(XMLTag** block, std::size_t room);

private:
  static constexpr std::uint32_t lentBit = 0x80000000u;
  XMLTag** items = nullptr;
  std::uint32_t count = 0;
  std::uint32_t capacity = 0; // room in items; the top bit marks a lent block
};

class XMLArena {
public:
  // A new arena with one holder.
  static XMLArena* Create();
  XMLArena(const XMLArena&) = delete;
  XMLArena& operator=(const XMLArena&) = delete;

  // One more holder; returns this arena.
  XMLArena* Share() noexcept;
  // One holder less; the last one frees the arena. Null is passed over.
  static void Release(XMLArena* arena) noexcept;

  // Room for bytes at an alignment of 2, 4 or 8.
  void* Allocate(std::size_t bytes, std::size_t alignment = 8) {
    const std::size_t skip = static_cast<std::size_t>(-reinterpret_cast<std::uintptr_t>(next)) & (alignment - 1);
    if (bytes + skip > static_cast<std::size_t>(end - next)) return AllocateInNewChunk(bytes);
    char* room = next + skip;
    next = room + bytes;
    return room;
  }
  // A copy of text that lives as long as the arena.
  std::u16string_view Keep(std::u16string_view text);
  // The UTF-8 bytes decoded (see DecodeUtf8Units) into units that live as long as the arena.
  // readAhead: 16 bytes past the text may be read (and are not decoded).
  std::u16string_view KeepUtf8(const char* bytes, std::size_t length, bool readAhead = false);
  // When the bytes are of the form a TagText may hold as bytes, a copy of them in kept, and true.
  // readAhead: 16 bytes past them may be read.
  bool KeepTwoByteUtf8(const char* bytes, std::size_t length, bool readAhead, std::string_view& kept);

private:
  struct Chunk;

  XMLArena() = default;
  ~XMLArena();
  void* AllocateInNewChunk(std::size_t bytes);

  std::atomic<std::int32_t> holders{1};
  Chunk* chunks = nullptr;
  char* next = nullptr;
  char* end = nullptr;
  std::size_t nextChunkSize = 0;
};

// One attribute: its name and its value.
struct XMLAttrEntry {
  TagText name;
  TagText value;
};

// An attribute list, shared between a tag and its copies until one of them writes to it. The
// entries follow the header in the same block.
struct XMLAttrBlock {
  std::atomic<std::int32_t> holders{1};
  std::uint32_t count = 0;
  std::uint32_t capacity = 0;
  bool inArena = false; // the block lies in a text arena and is never freed by itself
  bool borrows = false; // some entry may borrow its units from a text arena

  XMLAttrEntry* Entries() noexcept { return reinterpret_cast<XMLAttrEntry*>(this + 1); }
  const XMLAttrEntry* Entries() const noexcept { return reinterpret_cast<const XMLAttrEntry*>(this + 1); }

  // An empty block on the heap with room for capacity entries.
  static XMLAttrBlock* Create(std::size_t capacity);
  // An empty block in the arena with room for capacity entries.
  static XMLAttrBlock* Create(XMLArena& arena, std::size_t capacity);
  // A block of the block's own with the same entries, owning copies of their texts.
  static XMLAttrBlock* CopyOwned(const XMLAttrBlock& source, std::size_t capacity);

  // One more holder; returns this block.
  XMLAttrBlock* Share() noexcept;
  // One holder less; the last one destroys the entries and frees a heap block.
  static void Release(XMLAttrBlock* block) noexcept;
  // Appends an entry; there must be room.
  XMLAttrEntry& Append() noexcept { return *new (Entries() + count++) XMLAttrEntry; }
};

static_assert(sizeof(XMLAttrBlock) % alignof(XMLAttrEntry) == 0, "entries follow the header");

} // namespace QOR::detail
