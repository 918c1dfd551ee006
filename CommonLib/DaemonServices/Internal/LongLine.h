// A line too long to be held, gathered backwards. Not installed.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DaemonServices/Internal/CaseFoldSearch.h"

namespace ostrel::detail {

/// What the search needs to know of such a line: which patterns it holds, and its last bytes. Each byte is looked at
/// once, so that a line costs time linear in its length and memory for no more than the bytes that can be collected.
class LongLine {
 public:
  /// `patterns` is borrowed. At most `room` bytes of the line's end are kept.
  LongLine(std::span<const CaseFoldPattern> patterns, std::uint64_t room);

  /// `piece` stands in the line directly before everything that was prepended so far.
  void prepend(std::string_view piece);
  bool holdsEveryPattern() const noexcept;
  /// The line's end, at most `room` bytes.
  std::string tail() const;

 private:
  void lookFor(std::string_view piece);
  void keep(std::string_view piece);

  std::span<const CaseFoldPattern> patterns_;
  std::vector<bool> found_;
  std::size_t overlap_ = 0;  // bytes of a pattern that can stick out of a piece
  std::string start_;        // the first `overlap_` bytes of what was prepended so far
  std::uint64_t room_;
  std::vector<std::string> kept_;  // last piece first
};

}  // namespace ostrel::detail
