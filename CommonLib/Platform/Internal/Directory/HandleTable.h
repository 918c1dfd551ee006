// Handles of one kind and what they stand for.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/DirectoryTypes.h"
#include "Platform/Mutex.h"

namespace ostrel::detail {

/// Turns values of a type into handles and back. A handle carries its table's kind (3 bits), the generation of its slot
/// (13 bits) and the slot (16 bits), so that one of another kind or one that was given up is told from a live one: a
/// slot is used again only after 256 others, and the same handle comes back after two million at the earliest.
/// Threads: any.
template <class Value>
class HandleTable {
 public:
  /// `kind` from 1 to 7, another one for each table.
  explicit HandleTable(std::uint32_t kind) : kind_(kind) {}

  /// A new handle, or 0 when all are in use. May throw std::bad_alloc.
  DirectoryHandle add(Value value) {
    const MutexLock lock(mutex_);
    if (free_.size() < spareSlots && slots_.size() < mostSlots) grow();
    if (free_.empty()) return 0;
    const std::uint32_t index = free_.front();
    free_.pop_front();
    Slot& slot = slots_[index];
    slot.value.emplace(std::move(value));
    return handleOf(index, slot);
  }

  std::optional<Value> find(DirectoryHandle handle) {
    const MutexLock lock(mutex_);
    const Slot* slot = slotOf(handle);
    return slot == nullptr ? std::nullopt : slot->value;
  }

  /// Runs `use` on the value in place, under the table's lock. False when the handle is not a live one.
  template <class Use>
  bool with(DirectoryHandle handle, Use&& use) {
    const MutexLock lock(mutex_);
    Slot* slot = slotOf(handle);
    if (slot == nullptr) return false;
    use(*slot->value);
    return true;
  }

  /// Gives a handle up; absent when it is not a live one.
  std::optional<Value> take(DirectoryHandle handle) {
    const MutexLock lock(mutex_);
    Slot* slot = slotOf(handle);
    return slot == nullptr ? std::nullopt : giveUp(*slot, handle & slotMask);
  }

  /// Gives up every handle whose value `condition` picks; answers them for the caller to end outside the lock.
  template <class Condition>
  std::vector<std::pair<DirectoryHandle, Value>> takeIf(Condition&& condition) {
    std::vector<std::pair<DirectoryHandle, Value>> taken;
    const MutexLock lock(mutex_);
    for (std::uint32_t index = 0; index < slots_.size(); ++index) {
      Slot& slot = slots_[index];
      if (!slot.value || !condition(*slot.value)) continue;
      const DirectoryHandle handle = handleOf(index, slot);
      taken.emplace_back(handle, std::move(*giveUp(slot, index)));
    }
    return taken;
  }

 private:
  static constexpr std::uint32_t slotMask = 0xFFFF;
  static constexpr std::uint32_t generations = 1U << 13U;
  static constexpr std::size_t mostSlots = 0xFFFF;
  static constexpr std::size_t spareSlots = 256;

  struct Slot {
    std::uint32_t generation = 0;
    std::optional<Value> value;
  };

  DirectoryHandle handleOf(std::uint32_t index, const Slot& slot) const {
    return (kind_ << 29U) | (slot.generation << 16U) | index;
  }

  Slot* slotOf(DirectoryHandle handle) OSTREL_REQUIRES(mutex_) {
    const std::uint32_t index = handle & slotMask;
    if (index >= slots_.size()) return nullptr;
    Slot& slot = slots_[index];
    return slot.value && handleOf(index, slot) == handle ? &slot : nullptr;
  }

  std::optional<Value> giveUp(Slot& slot, std::uint32_t index) OSTREL_REQUIRES(mutex_) {
    std::optional<Value> value = std::move(slot.value);
    slot.value.reset();
    slot.generation = (slot.generation + 1) % generations;
    free_.push_back(index);
    return value;
  }

  void grow() OSTREL_REQUIRES(mutex_) {
    const std::size_t first = slots_.size();
    slots_.resize(std::min(first + spareSlots, mostSlots));
    for (std::size_t index = first; index < slots_.size(); ++index) free_.push_back(static_cast<std::uint32_t>(index));
  }

  const std::uint32_t kind_;
  Mutex mutex_;
  std::vector<Slot> slots_ OSTREL_GUARDED_BY(mutex_);
  std::deque<std::uint32_t> free_ OSTREL_GUARDED_BY(mutex_);  ///< oldest first
};

}  // namespace ostrel::detail
