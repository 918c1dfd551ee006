#include "Containers/PlistRows.h"

#include <utility>
#include <vector>

#include "Containers/Internal/PlistStorage.h"
#include "Containers/Utf8.h"

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

namespace {

constexpr std::size_t mostComparedKeys = 16;

bool hasDistinctKeys(std::span<const PlistValue> keysAndValues) {
  for (std::size_t at = 2; at < keysAndValues.size(); at += 2)
    for (std::size_t before = 0; before < at; before += 2)
      if (keysAndValues[before].stringValue() == keysAndValues[at].stringValue()) return false;
  return true;
}

PlistValue setOneByOne(std::span<const PlistValue> keysAndValues) {
  PlistValue row = PlistValue::mutableDictionary();
  for (std::size_t at = 0; at < keysAndValues.size(); at += 2)
    row.set(keysAndValues[at].stringValue(), keysAndValues[at + 1]);
  return row;
}

}  // namespace

void PlistRows::add(std::span<PlistValue> keysAndValues) {
  const std::size_t count = keysAndValues.size() / 2;
  if (count > mostComparedKeys || !hasDistinctKeys(keysAndValues)) {
    state_->made.push_back(setOneByOne(keysAndValues));
    return;
  }
  state_->made.push_back(PlistStorage::makeDictionary(keysAndValues.data(), count, true,
                                                      PlistStorage::Keys::knownDistinct, state_->arena));
  // The row holds them now, byte for byte.
  for (PlistValue& value : keysAndValues) new (static_cast<void*>(&value)) PlistValue();
}

PlistValue PlistRows::text(std::string_view bytes) {
  return isValidUtf8(bytes) ? PlistStorage::makeString(bytes, &state_->arena) : PlistValue();
}

std::size_t PlistRows::count() const { return state_->made.size(); }

PlistValue PlistRows::finish() {
  std::vector<PlistValue>& made = state_->made;
  PlistValue rows = PlistStorage::makeArray(made.data(), made.size(), true, state_->arena);
  // The array holds them now, byte for byte.
  for (PlistValue& value : made) new (static_cast<void*>(&value)) PlistValue();
  made.clear();
  return rows;
}

}  // namespace ostrel
