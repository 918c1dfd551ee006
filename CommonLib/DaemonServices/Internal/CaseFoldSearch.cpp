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

using Block [[gnu::vector_size(16)]] = unsigned char;
using Halves [[gnu::vector_size(16)]] = std::uint64_t;
constexpr std::size_t blockSize = sizeof(Block);
constexpr std::size_t stride = 4 * blockSize;

Block load(const unsigned char* at) noexcept {
  Block block;
  std::memcpy(&block, at, sizeof block);
  return block;
}

Block allOf(unsigned char byte) noexcept { return Block{} + byte; }

/// One half of a block, 0 or 1, as a number whose lowest byte is the first one.
std::uint64_t halfOf(Block block, std::size_t half) noexcept {
  const std::uint64_t bytes = reinterpret_cast<Halves>(block)[half];
  return std::endian::native == std::endian::little ? bytes : __builtin_bswap64(bytes);
}

bool any(Block block) noexcept {
  const auto halves = reinterpret_cast<Halves>(block);
  return (halves[0] | halves[1]) != 0;
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
    const Probe probe{place, allOf(*mask), allOf(static_cast<unsigned char>(folded | *mask))};
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

/// All ones at each of the positions of a block from `text` on at which both probes fit.
CaseFoldPattern::Block CaseFoldPattern::candidates(const unsigned char* text) const noexcept {
  const Block first = (load(text + first_.place) | first_.mask) == first_.value;
  const Block second = (load(text + second_.place) | second_.mask) == second_.value;
  return first & second;
}

/// The last fitting position among the candidates of the block at `text`, npos when there is none.
std::size_t CaseFoldPattern::lastAmong(Block candidates, const unsigned char* text) const noexcept {
  for (std::size_t half = 2; half-- > 0;) {
    for (std::uint64_t left = halfOf(candidates, half); left != 0;) {
      const auto byte = static_cast<std::size_t>(63 - std::countl_zero(left)) / 8;
      if (fitsAt(text + half * 8 + byte)) return half * 8 + byte;
      left &= (std::uint64_t{1} << (8 * byte)) - 1;
    }
  }
  return npos;
}

std::size_t CaseFoldPattern::firstAmong(Block candidates, const unsigned char* text) const noexcept {
  for (std::size_t half = 0; half < 2; ++half) {
    for (std::uint64_t left = halfOf(candidates, half); left != 0;) {
      const auto byte = static_cast<std::size_t>(std::countr_zero(left)) / 8;
      if (fitsAt(text + half * 8 + byte)) return half * 8 + byte;
      left &= ~(std::uint64_t{0xFF} << (8 * byte));
    }
  }
  return npos;
}

std::size_t CaseFoldPattern::findLast(std::string_view text, std::size_t before) const noexcept {
  if (text.empty() || text.size() < folded_.size()) return npos;
  const std::size_t positions = folded_.empty() ? text.size() : text.size() - folded_.size() + 1;
  const unsigned char* bytes = bytesOf(text);
  std::size_t left = std::min(positions, before);  // positions not yet looked at: [0, left)
  if (!probing_ || left < blockSize) {
    while (left > 0) {
      if (fitsAt(bytes + --left)) return left;
    }
    return npos;
  }

  const auto lastInBlock = [&](std::size_t at) {
    const Block fitting = candidates(bytes + at);
    const std::size_t found = any(fitting) ? lastAmong(fitting, bytes + at) : npos;
    return found == npos ? npos : at + found;
  };
  for (; left >= stride; left -= stride) {
    const std::size_t at = left - stride;
    Block fitting{};
    for (std::size_t block = at; block < left; block += blockSize) fitting |= candidates(bytes + block);
    if (!any(fitting)) continue;
    for (std::size_t block = left; block > at;) {
      block -= blockSize;
      const std::size_t found = lastInBlock(block);
      if (found != npos) return found;
    }
  }
  while (left > 0) {
    // The last block may cover positions that were looked at before: they do not fit.
    left = left < blockSize ? 0 : left - blockSize;
    const std::size_t found = lastInBlock(left);
    if (found != npos) return found;
  }
  return npos;
}

std::size_t CaseFoldPattern::find(std::string_view text) const noexcept {
  if (folded_.empty()) return 0;
  if (text.size() < folded_.size()) return npos;
  const unsigned char* bytes = bytesOf(text);
  const std::size_t positions = text.size() - folded_.size() + 1;
  std::size_t done = 0;
  for (; probing_ && positions - done >= blockSize; done += blockSize) {
    const std::size_t found = firstAmong(candidates(bytes + done), bytes + done);
    if (found != npos) return done + found;
  }
  for (; done < positions; ++done) {
    if (fitsAt(bytes + done)) return done;
  }
  return npos;
}

}  // namespace ostrel::detail
