#include "PluginFramework/Internal/ContextDelta.h"

#include <algorithm>
#include <cstring>

namespace ostrel::detail {
namespace {

constexpr std::size_t largeBlock = 4096;  // compared at once, and where it differs in small ones
constexpr std::size_t smallBlock = 64;
constexpr std::size_t nearness = 64;  // what lies closer together is written together

/// Gathers what differs, from left to right.
class DifferenceFinder {
 public:
  explicit DifferenceFinder(Delta& delta) : delta_(delta) {}

  void compare(std::string_view left, std::string_view right, std::size_t at, bool isPayload) {
    eachThatDiffers(left, right, at, largeBlock, [&](std::string_view a, std::string_view b, std::size_t within) {
      eachThatDiffers(a, b, within, smallBlock, [&](std::string_view c, std::string_view d, std::size_t place) {
        compareBytes(c, d, place, isPayload);
      });
    });
  }

 private:
  static void eachThatDiffers(std::string_view left, std::string_view right, std::size_t at, std::size_t block,
                              const auto& work) {
    for (std::size_t from = 0; from < left.size(); from += block) {
      const std::size_t size = std::min(block, left.size() - from);
      if (std::memcmp(left.data() + from, right.data() + from, size) != 0)
        work(left.substr(from, size), right.substr(from, size), at + from);
    }
  }

  void compareBytes(std::string_view left, std::string_view right, std::size_t at, bool isPayload) {
    delta_.onlyPayloads = delta_.onlyPayloads && isPayload;
    for (std::size_t i = 0; i < left.size(); ++i)
      if (left[i] != right[i]) add(at + i);
  }

  void add(std::size_t position) {
    if (!delta_.extents.empty()) {
      Extent& last = delta_.extents.back();
      if (position <= last.offset + last.newLength + nearness) {
        last.oldLength = last.newLength = position + 1 - last.offset;
        return;
      }
    }
    delta_.extents.push_back({position, 1, 1});
  }

  Delta& delta_;
};

std::size_t firstDifference(std::string_view old, const PlistPieces& archive) {
  std::size_t at = 0;
  for (const auto& [bytes, isPayload] : archive.pieces) {
    const std::string_view there = old.substr(at, bytes.size());
    const auto differ = std::ranges::mismatch(bytes, there);
    at += static_cast<std::size_t>(differ.in1 - bytes.begin());
    if (differ.in1 != bytes.end()) break;
  }
  return at;
}

}  // namespace

Delta differenceOf(std::string_view old, const PlistPieces& archive) {
  Delta delta{old.size(), archive.size, {}, true};
  if (old.size() != archive.size) {
    const std::size_t start = firstDifference(old, archive);
    delta.extents.push_back({start, old.size() - start, archive.size - start});
    delta.onlyPayloads = false;
    return delta;
  }
  DifferenceFinder finder(delta);
  std::size_t at = 0;
  for (const auto& [bytes, isPayload] : archive.pieces) {
    finder.compare(bytes, old.substr(at, bytes.size()), at, isPayload);
    at += bytes.size();
  }
  return delta;
}

void appendRange(const PlistPieces& archive, std::size_t offset, std::size_t length, std::string& out) {
  for (const auto& [bytes, isPayload] : archive.pieces) {
    if (length == 0) return;
    if (offset >= bytes.size()) {
      offset -= bytes.size();
      continue;
    }
    const std::string_view part = bytes.substr(offset, length);
    out.append(part);
    length -= part.size();
    offset = 0;
  }
}

}  // namespace ostrel::detail
