#include "DaemonServices/Internal/CaseFoldSearch.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

namespace ostrel::detail {
namespace {

// GNU vectors: the compiler turns them into whatever the machine has, SSE2 on x86-64, plain words elsewhere.
using Block [[gnu::vector_size(16)]] = unsigned char;
using Words [[gnu::vector_size(16)]] = std::uint64_t;
constexpr std::size_t blockSize = sizeof(Block);
constexpr std::size_t stride = 4 * blockSize;

Block load(const unsigned char* at) noexcept {
  Block block;
  std::memcpy(&block, at, sizeof block);
  return block;
}

Block allOf(unsigned char byte) noexcept { return Block{} + byte; }

bool any(Block block) noexcept {
  const auto words = reinterpret_cast<Words>(block);
  return (words[0] | words[1]) != 0;
}

// How common a byte is in logs, most common first; what is not listed is rare.
constexpr std::string_view commonFirst = " e0t1a2oinrs3d4l5:-6c78.9pum/fg=[]h_b()v,ywk\"xj@'q<>z;+#*%{}";

int commonness(unsigned char lower) {
  const std::size_t rank = commonFirst.find(static_cast<char>(lower));
  return rank == std::string_view::npos ? 0 : static_cast<int>(commonFirst.size() - rank);
}

std::array<unsigned char, 256> makeLowerCaseTable() {
  std::array<unsigned char, 256> table{};
  for (int byte = 0; byte < 256; ++byte)
    table[static_cast<std::size_t>(byte)] = static_cast<unsigned char>(std::tolower(byte));
  return table;
}

/// For each folded byte, the bit by which its letter cases differ, 0 when it has but one; absent when one comparison
/// cannot tell them (possible in odd single-byte locales only).
std::array<std::optional<unsigned char>, 256> makeCaseMasks() {
  std::array<std::optional<unsigned char>, 256> masks;
  for (unsigned folded = 0; folded < 256; ++folded) {
    unsigned differing = 0;
    unsigned cases = 0;
    for (unsigned byte = 0; byte < 256; ++byte) {
      if (lowerCaseTable()[byte] != folded) continue;
      differing |= byte ^ folded;
      ++cases;
    }
    const bool onlyItself = cases == 1 && differing == 0;
    const bool onePair = cases == 2 && std::has_single_bit(differing);
    if (onlyItself || onePair) masks[folded] = static_cast<unsigned char>(differing);
  }
  return masks;
}

std::optional<unsigned char> caseMask(unsigned char folded) {
  static const std::array<std::optional<unsigned char>, 256> masks = makeCaseMasks();
  return masks[folded];
}

const unsigned char* bytesOf(std::string_view text) noexcept {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

const std::array<unsigned char, 256>& lowerCaseTable() {
  static const std::array<unsigned char, 256> table = makeLowerCaseTable();
  return table;
}

CaseFoldPattern::CaseFoldPattern(std::string_view words) : lower_(lowerCaseTable()), folded_(words) {
  for (char& byte : folded_) byte = static_cast<char>(lower_[static_cast<unsigned char>(byte)]);
  chooseProbes();
}

void CaseFoldPattern::chooseProbes() {
  constexpr int none = std::numeric_limits<int>::max();
  int firstRank = none;
  int secondRank = none;
  for (std::size_t place = 0; place < folded_.size(); ++place) {
    const auto folded = static_cast<unsigned char>(folded_[place]);
    const std::optional<unsigned char> mask = caseMask(folded);
    if (!mask) continue;
    const Probe probe{place, *mask, static_cast<unsigned char>(folded | *mask)};
    const int rank = commonness(folded);
    if (rank < firstRank) {
      second_ = first_;
      secondRank = firstRank;
      first_ = probe;
      firstRank = rank;
    } else if (rank < secondRank) {
      second_ = probe;
      secondRank = rank;
    }
  }
  probing_ = firstRank != none;
  if (secondRank == none) second_ = first_;
}

bool CaseFoldPattern::fitsAt(const unsigned char* text) const noexcept {
  const unsigned char* words = bytesOf(folded_);
  for (std::size_t i = 0; i < folded_.size(); ++i) {
    if (lower_[text[i]] != words[i]) return false;
  }
  return true;
}

/// Whether both probes fit at one of the positions of so many blocks (1 or 4) from `text` on.
inline bool CaseFoldPattern::mayFitWithin(const unsigned char* text, std::size_t blocks) const noexcept {
  const Block firstMask = allOf(first_.mask);
  const Block firstValue = allOf(first_.value);
  const Block secondMask = allOf(second_.mask);
  const Block secondValue = allOf(second_.value);
  Block fitting{};
  for (std::size_t i = 0; i < blocks; ++i) {
    const Block first = (load(text + first_.place + i * blockSize) | firstMask) == firstValue;
    const Block second = (load(text + second_.place + i * blockSize) | secondMask) == secondValue;
    fitting |= first & second;
  }
  return any(fitting);
}

/// The last fitting position in [from, to), each of which has room for the words; npos when there is none.
std::size_t CaseFoldPattern::lastOf(const unsigned char* text, std::size_t from, std::size_t to) const noexcept {
  while (to > from) {
    --to;
    if (fitsAt(text + to)) return to;
  }
  return npos;
}

std::size_t CaseFoldPattern::firstOf(const unsigned char* text, std::size_t from, std::size_t to) const noexcept {
  for (; from < to; ++from) {
    if (fitsAt(text + from)) return from;
  }
  return npos;
}

std::size_t CaseFoldPattern::findLast(std::string_view text, std::size_t before) const noexcept {
  if (text.empty() || text.size() < folded_.size()) return npos;
  const std::size_t positions = folded_.empty() ? text.size() : text.size() - folded_.size() + 1;
  std::size_t left = std::min(positions, before);  // positions not yet looked at: [0, left)
  const unsigned char* bytes = bytesOf(text);
  while (probing_ && left >= blockSize) {
    if (left >= stride && !mayFitWithin(bytes + left - stride, 4)) {
      left -= stride;
      continue;
    }
    left -= blockSize;
    if (!mayFitWithin(bytes + left, 1)) continue;
    const std::size_t found = lastOf(bytes, left, left + blockSize);
    if (found != npos) return found;
  }
  return lastOf(bytes, 0, left);
}

std::size_t CaseFoldPattern::find(std::string_view text) const noexcept {
  if (folded_.empty()) return 0;
  if (text.size() < folded_.size()) return npos;
  const unsigned char* bytes = bytesOf(text);
  const std::size_t positions = text.size() - folded_.size() + 1;
  std::size_t done = 0;
  for (; probing_ && positions - done >= blockSize; done += blockSize) {
    if (!mayFitWithin(bytes + done, 1)) continue;
    const std::size_t found = firstOf(bytes, done, done + blockSize);
    if (found != npos) return found;
  }
  return firstOf(bytes, done, positions);
}

}  // namespace ostrel::detail
