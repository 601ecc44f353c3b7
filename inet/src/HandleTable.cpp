#include "HandleTable.h"

#include "Handle.h"

#include <cstdint>
#include <mutex>
#include <vector>

namespace QOR::inet::HandleTable {

namespace {

struct Table {
  std::mutex lock;
  std::vector<std::shared_ptr<Handle>> slots; // slot i holds the handle of value i + 1

  ~Table() {
    // Handles left open at exit or unload: their loop threads must stop before the code goes.
    std::vector<std::shared_ptr<Handle>> left;
    {
      std::lock_guard<std::mutex> guard(lock);
      left.swap(slots);
    }
    for (auto& handle : left) {
      if (handle) handle->AtExit();
    }
  }
};

Table& TheTable() {
  static Table table;
  return table;
}

} // namespace

HINTERNET Add(std::shared_ptr<Handle> handle) {
  Table& table = TheTable();
  std::lock_guard<std::mutex> guard(table.lock);
  std::size_t index = 0;
  while (index < table.slots.size() && table.slots[index]) ++index;
  if (index == table.slots.size()) table.slots.emplace_back();
  table.slots[index] = std::move(handle);
  return reinterpret_cast<HINTERNET>(static_cast<std::uintptr_t>(index + 1));
}

std::shared_ptr<Handle> Find(HINTERNET value) {
  auto number = reinterpret_cast<std::uintptr_t>(value);
  Table& table = TheTable();
  std::lock_guard<std::mutex> guard(table.lock);
  if (number == 0 || number > table.slots.size()) return nullptr;
  return table.slots[number - 1];
}

void Remove(HINTERNET value) {
  auto number = reinterpret_cast<std::uintptr_t>(value);
  std::shared_ptr<Handle> released;
  Table& table = TheTable();
  {
    std::lock_guard<std::mutex> guard(table.lock);
    if (number == 0 || number > table.slots.size()) return;
    released = std::move(table.slots[number - 1]);
    while (!table.slots.empty() && !table.slots.back()) table.slots.pop_back();
  }
  // `released` may be the last reference: it goes after the table lock is free.
}

} // namespace QOR::inet::HandleTable
