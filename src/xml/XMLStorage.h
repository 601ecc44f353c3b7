// Where the tags and texts of a read or copied document live, and the shared attribute lists.
//
// A document that reads text puts its tags into one arena and its texts and attribute lists into
// another; a copy of the document makes its own tag arena and shares the text arena, which
// counts its holders. An arena's memory goes back only when its last holder lets go, so a tag
// removed from a read document keeps its room until the document is read again or destroyed.
// The top tag never borrows from an arena: it outlives every read.
#pragma once

#include <qorxmlu/xml/XMLTag.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace QOR::detail {

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
