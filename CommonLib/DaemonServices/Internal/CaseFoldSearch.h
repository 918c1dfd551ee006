// Substring search that ignores letter case, several bytes a step. Not installed.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel::detail {

/// The lower-case mapping of every byte in the locale of the process, taken when it is first asked for.
const std::array<unsigned char, 256>& lowerCaseTable();

/// Words to be searched for in any letter case. Immutable, so any number of threads may search with one.
///
/// Candidates are the positions where two chosen bytes of the words, those that are rarest in logs, both fit; they are
/// found by whole vector comparisons, and only they are compared in full.
class CaseFoldPattern {
 public:
  explicit CaseFoldPattern(std::string_view words);

  static constexpr std::size_t npos = std::string_view::npos;
  std::size_t size() const noexcept { return folded_.size(); }

  /// The first position in `text`; 0 when the words are empty.
  std::size_t find(std::string_view text) const noexcept;
  /// The last position below `before` at which the words lie wholly within `text`. Empty words: the last position
  /// below both `before` and the size of the text.
  std::size_t findLast(std::string_view text, std::size_t before = npos) const noexcept;
  bool isIn(std::string_view text) const noexcept { return size() == 0 || findLast(text) != npos; }

 private:
  /// A GNU vector: the compiler turns it into whatever the machine has, SSE2 on x86-64, plain words elsewhere.
  using Block [[gnu::vector_size(16)]] = unsigned char;

  /// A place in the words whose byte x is recognised by (x | mask) == value: both letter cases in one comparison. Mask
  /// and value stand in every byte of their blocks.
  struct Probe {
    std::size_t place = 0;
    Block mask{};
    Block value{};
  };

  void chooseProbes();
  bool fitsAt(const unsigned char* text) const noexcept;
  Block candidates(const unsigned char* text) const noexcept;
  std::size_t lastAmong(Block candidates, const unsigned char* text) const noexcept;
  std::size_t firstAmong(Block candidates, const unsigned char* text) const noexcept;

  const std::array<unsigned char, 256>& lower_;
  std::string folded_;
  Probe first_;
  Probe second_;
  bool probing_ = false;  // false: no byte has exactly one other letter case one bit away, every position is compared
};

}  // namespace ostrel::detail
