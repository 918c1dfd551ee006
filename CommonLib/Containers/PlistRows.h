// Many small dictionaries at once: the samples of a time series, the records of a listing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// Makes an array of dictionaries row by row. The rows share blocks of memory and their keys, so that a row costs far
/// less than a dictionary that is made alone; one row kept for long keeps at most 64 KB from being freed.
///
/// Threads: one object on one thread at a time. Operations throw std::bad_alloc only.
class OSTREL_EXPORT PlistRows {
 public:
  /// How many rows and entries in a row to expect; more or fewer may come.
  PlistRows(std::size_t rows, std::size_t entriesPerRow);
  ~PlistRows();
  PlistRows(const PlistRows&) = delete;
  PlistRows& operator=(const PlistRows&) = delete;

  /// Adds a row of a number for each key; but for the first, which is always there, those that are `absent` are left
  /// out. Requires: the keys are strings, all different, and as many as the numbers.
  void add(std::span<const PlistValue> keys, std::span<const std::uint64_t> numbers, std::uint64_t absent);

  /// Adds a row of keys (strings) and values in turn, which are taken out of the span. The last of equal keys counts.
  void add(std::span<PlistValue> keysAndValues);
  /// A string for such a row, in the memory of the rows. Null when the bytes are not valid UTF-8.
  PlistValue text(std::string_view bytes);
  std::size_t count() const;

  /// The rows in order, a mutable array of mutable dictionaries; this object is empty afterwards.
  PlistValue finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ostrel
