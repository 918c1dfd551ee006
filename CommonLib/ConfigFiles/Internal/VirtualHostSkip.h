// Leaves virtual-host sections out of a search.
#pragma once

#include <cstdint>

#include "ConfigFiles/Internal/PatternMatch.h"
#include "ConfigFiles/Internal/TextFileLines.h"

namespace ostrel::detail {

/// As a search start: from the start of the file, without virtual-host sections.
constexpr std::int64_t searchOutsideVirtualHosts = -2;

/// Told every line in turn, says which are to be passed over: a line with the opening tag, the lines with the closing
/// tag directly behind it, and one line more. The rest of a long section is searched like other text: callers rely on
/// the search being so.
class VirtualHostSkip {
 public:
  explicit VirtualHostSkip(bool isOn) noexcept : isOn_(isOn) {}

  bool passesOver(const TextLine& line) noexcept {
    if (!isOn_) return false;
    if (isInside_) {
      isInside_ = static_cast<bool>(matchPattern(line.text(), "</VirtualHost"));
      return true;
    }
    isInside_ = static_cast<bool>(matchPattern(line.text(), "<VirtualHost"));
    return isInside_;
  }

 private:
  bool isOn_;
  bool isInside_ = false;
};

}  // namespace ostrel::detail
