// What a write of a context changes in its file, byte by byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/PropertyList.h"

namespace ostrel::detail {

/// A stretch that is replaced. Both lengths are equal but in the last one of a file that changes its length.
struct Extent {
  std::size_t offset = 0;
  std::size_t oldLength = 0;
  std::size_t newLength = 0;
};

struct Delta {
  std::size_t oldLength = 0;  ///< of the file
  std::size_t newLength = 0;
  std::vector<Extent> extents;  ///< in order, apart from one another
  /// Whether everything that differs lies within data values of unchanged length. What stands around them is the same,
  /// so they are the same values at the same places: samples were taken, and no setting was changed.
  bool onlyPayloads = true;
};

/// How the archive differs from what the file holds.
Delta differenceOf(std::string_view old, const PlistPieces& archive);

/// Appends the bytes [offset, offset + length) of the archive to `out`.
void appendRange(const PlistPieces& archive, std::size_t offset, std::size_t length, std::string& out);

}  // namespace ostrel::detail
