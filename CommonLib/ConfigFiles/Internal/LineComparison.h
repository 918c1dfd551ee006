// Which lines of two texts differ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ostrel::detail {

/// A run of lines of the old text that a run of lines of the new one replaces; either may be empty.
struct LineChange {
  std::size_t oldBegin, oldEnd;
  std::size_t newBegin, newEnd;
};

/// A text's lines, each with its line feed.
std::vector<std::string_view> splitLines(std::string_view text);

/// The changes that turn the old lines into the new ones, in order, with at least one common line between any two.
std::vector<LineChange> compareLines(const std::vector<std::string_view>& oldLines,
                                     const std::vector<std::string_view>& newLines);

}  // namespace ostrel::detail
