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
    row.reserve(entriesPerRow * 2);
    made.reserve(rows);
  }

  detail::PlistArena arena;
  std::vector<PlistValue> row;  // keys and values in turn
  std::vector<PlistValue> made;
};

namespace {

/// Empties what a container has been made of: the container holds the members now, byte for byte.
void forget(std::vector<PlistValue>& moved) noexcept {
  for (PlistValue& value : moved) new (static_cast<void*>(&value)) PlistValue();
  moved.clear();
}

}  // namespace

PlistRows::PlistRows(std::size_t rows, std::size_t entriesPerRow)
    : state_(std::make_unique<State>(rows, entriesPerRow)) {}
PlistRows::~PlistRows() = default;

void PlistRows::add(const PlistValue& key, PlistValue value) {
  state_->row.push_back(key);
  state_->row.push_back(std::move(value));
}

void PlistRows::endRow() {
  std::vector<PlistValue>& row = state_->row;
  state_->made.emplace_back();
  state_->made.back() =
      PlistStorage::makeDictionary(row.data(), row.size() / 2, true, PlistStorage::Keys::knownDistinct, state_->arena);
  forget(row);
}

PlistValue PlistRows::finish() {
  std::vector<PlistValue>& made = state_->made;
  PlistValue rows = PlistStorage::makeArray(made.data(), made.size(), true, state_->arena);
  forget(made);
  return rows;
}

}  // namespace ostrel
