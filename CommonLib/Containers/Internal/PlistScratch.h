// The stack on which readers gather members until their container is complete. Not installed.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "Containers/Internal/PlistStorage.h"
#include "Containers/PlistValue.h"

namespace ostrel::detail {

class PlistScratch {
 public:
  /// `expectedHeap`: a guess at the bytes that the document's values will take on the heap.
  explicit PlistScratch(std::size_t expectedHeap) noexcept : arena_(expectedHeap) {}
  PlistScratch(const PlistScratch&) = delete;
  PlistScratch& operator=(const PlistScratch&) = delete;
  ~PlistScratch() {
    while (top_ != begin_) (--top_)->~PlistValue();
    if (begin_ != own()) std::free(static_cast<void*>(begin_));
  }

  std::size_t size() const noexcept { return static_cast<std::size_t>(top_ - begin_); }
  PlistValue& top() noexcept { return top_[-1]; }

  void push(PlistValue value) {
    if (top_ == limit_) grow();
    new (top_++) PlistValue(std::move(value));
  }
  void pushString(std::string_view text) { push(PlistStorage::makeString(text, &arena_)); }
  PlistArena& arena() noexcept { return arena_; }
  PlistValue pop() noexcept {
    --top_;
    PlistValue value = std::move(*top_);
    top_->~PlistValue();
    return value;
  }

  /// Turns everything above `base` into an array, and leaves that in its place.
  void foldArray(std::size_t base, bool isMutable) {
    PlistValue made = PlistStorage::makeArray(begin_ + base, size() - base, isMutable, arena_);
    top_ = begin_ + base;
    push(std::move(made));
  }
  /// Turns everything above `base`, keys and values in turn, into a dictionary, and leaves that in its place. False,
  /// with nothing in its place, when two keys are equal.
  bool foldDictionary(std::size_t base, bool isMutable, PlistStorage::Keys keys) {
    PlistValue made = PlistStorage::makeDictionary(begin_ + base, (size() - base) / 2, isMutable, keys, arena_);
    top_ = begin_ + base;
    if (made.isNull()) return false;
    push(std::move(made));
    return true;
  }

 private:
  static constexpr std::size_t ownCapacity = 128;

  PlistValue* own() noexcept { return reinterpret_cast<PlistValue*>(storage_); }
  // Handles may be moved as bytes: they hold no pointer to themselves.
  void grow() {
    const std::size_t used = size();
    const std::size_t bytes = used * 2 * sizeof(PlistValue);
    void* grown = begin_ == own() ? std::malloc(bytes) : std::realloc(static_cast<void*>(begin_), bytes);
    if (grown == nullptr) throw std::bad_alloc();
    if (begin_ == own()) std::memcpy(grown, static_cast<const void*>(begin_), used * sizeof(PlistValue));
    begin_ = static_cast<PlistValue*>(grown);
    top_ = begin_ + used;
    limit_ = begin_ + used * 2;
  }

  PlistArena arena_;
  alignas(PlistValue) unsigned char storage_[ownCapacity * sizeof(PlistValue)];
  PlistValue* begin_ = own();
  PlistValue* top_ = begin_;
  PlistValue* limit_ = begin_ + ownCapacity;
};

}  // namespace ostrel::detail
