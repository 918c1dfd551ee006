// Text taken apart at a separator, without copying what needs no copy. Not installed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostrel::detail {

/// Gives the components of an escaped text one after another, as `componentsSeparatedByCharacter:` defines them.
class ComponentScanner {
 public:
  ComponentScanner(std::string_view text, char separator) noexcept
      : left_(text), separator_(static_cast<unsigned char>(separator) < 0x80 ? separator : '\\'), done_(text.empty()) {}

  /// False when there is no further component. `component` lives as long as the text and until the call after the next.
  bool next(std::string_view& component) {
    if (done_) return false;
    std::size_t end = 0;
    while (end < left_.size() && left_[end] != '\\' && left_[end] != separator_) ++end;
    if (end < left_.size() && left_[end] == '\\') return nextEscaped(end, component);
    component = left_.substr(0, end);
    passTo(end);
    return true;
  }

 private:
  // The separator may be the backslash itself, which escapes before it separates.
  bool nextEscaped(std::size_t end, std::string_view& component) {
    std::string& text = unescaped_[which_ ^= 1U];
    text.assign(left_, 0, end);
    for (; end < left_.size() && (left_[end] == '\\' || left_[end] != separator_); ++end) {
      if (left_[end] == '\\' && ++end == left_.size()) {
        done_ = true;  // a lone backslash at the end swallows its component
        return false;
      }
      text += left_[end];
    }
    component = text;
    passTo(end);
    return true;
  }
  void passTo(std::size_t end) noexcept {
    done_ = end == left_.size();
    left_.remove_prefix(done_ ? end : end + 1);
  }

  std::string_view left_;
  char separator_;
  bool done_;
  unsigned which_ = 0;
  std::string unescaped_[2];
};

}  // namespace ostrel::detail
