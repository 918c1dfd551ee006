// The search behind `rgrep` and the filtered reader, on an open file. Not installed.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string_view>

#include "DaemonServices/BackwardSearch.h"
#include "DaemonServices/Internal/CaseFoldSearch.h"

namespace ostrel::detail {

/// How many bytes after a line may hold the remark that belongs to it.
inline constexpr std::size_t remarkReach = 254;

/// Whether the line holds every one of the patterns, in any letter case.
bool holdsEvery(std::string_view line, std::span<const CaseFoldPattern> patterns) noexcept;

/// `checkMatch` with the patterns and the text that follows the line at hand. `following` holds `remarkReach` bytes or
/// all that there are.
void collectIfMatching(std::string_view line, std::span<const CaseFoldPattern> patterns, std::string_view following,
                       LineCollector& collector);

/// Collects a line that is known to match, behind it the remark at the start of `following`, if there is one.
void collectWithRemark(std::string_view line, std::string_view following, LineCollector& collector);

/// What is asked of a backward search: see `rgrep`.
struct SearchRequest {
  std::span<const std::string_view> filters;
  std::uint64_t byteLimit = 0;
  std::uint64_t lowerBound = 0;
  std::chrono::seconds timeLimit{};
};

/// What `rgrep` finds in the first `fileSize` bytes of an open file. Throws std::bad_alloc.
LineCollector searchBackward(int fileDescriptor, std::uint64_t fileSize, const SearchRequest& request);

}  // namespace ostrel::detail
