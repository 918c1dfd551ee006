#include "Containers/PlistRows.h"

#include <utility>
#include <vector>

#include "Containers/Internal/PlistStorage.h"

namespace ostrel {

using detail::PlistStorage;

struct PlistRows::State {
  State(std::size_t rows, std::size_t entriesPerRow)
      : arena(rows * (sizeof(detail::DictionaryNode) + entriesPerRow * sizeof(PlistEntry) + detail::PlistArena::grain) +
              sizeof(detail::ArrayNode) + rows * sizeof(PlistValue)) {
    made.reserve(rows);
  }

  detail::PlistArena arena;
  std::vector<PlistValue> made;
};

PlistRows::PlistRows(std::size_t rows, std::size_t entriesPerRow)
    : state_(std::make_unique<State>(rows, entriesPerRow)) {}
PlistRows::~PlistRows() = default;

void PlistRows::add(std::span<const PlistValue> keys, std::span<const std::uint64_t> numbers, std::uint64_t absent) {
  state_->made.push_back(PlistStorage::makeRow(keys, numbers, absent, state_->arena));
}

PlistValue PlistRows::finish() {
  std::vector<PlistValue>& made = state_->made;
  PlistValue rows = PlistStorage::makeArray(made.data(), made.size(), true, state_->arena);
  // The array holds them now, byte for byte.
  for (PlistValue& value : made) new (static_cast<void*>(&value)) PlistValue();
  made.clear();
  return rows;
}

}  // namespace ostrel
