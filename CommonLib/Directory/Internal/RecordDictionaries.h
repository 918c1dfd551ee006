// What the listings that answer dictionaries share.
#pragma once

#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Containers/PlistValue.h"
#include "Directory/Internal/RecordWalk.h"

namespace ostrel::detail {

inline constexpr std::string_view userAliases = "dsRecTypeStandard:UserAliases";
inline constexpr std::string_view groupAliases = "dsRecTypeStandard:GroupAliases";
inline constexpr std::string_view virtualPrefix = "dsAttrTypeVirtual:";
inline constexpr std::string_view isAdminAttribute = "dsAttrTypeVirtual:isAdmin";

inline constexpr std::uint32_t noMaximum = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::uint32_t defaultMaximum = 256;

/// The number; the default when it is none; `noMaximum` when it is negative or does not fit.
std::uint32_t maximumOf(const PlistValue& maximum);
bool isAliasType(std::string_view type);
/// The strings of an array that can stand before a NUL; the others name nothing.
std::vector<std::string> namesIn(const PlistValue& array);
/// Whether an array is taken for one: it begins with a string that can stand before a NUL.
bool isUsableArray(const PlistValue& array);

/// Makes dictionaries of the records of a search, `maximum` at most.
class RecordCollector final : private RecordVisitor {
 public:
  explicit RecordCollector(std::uint32_t maximum) : maximum_(maximum) {}

  /// Walks over a search of the node as `walkSearch` does.
  DirectoryStatus collect(DirectoryHandle node, std::uint32_t asked, const SearchStep& step);
  const PlistValue& records() const { return records_; }
  /// Whether there was one behind the last that was collected.
  bool moreRecords() const { return moreRecords_; }

 private:
  DirectoryStatus beginAttribute(std::string_view name, std::uint32_t valueCount) override;
  DirectoryStatus value(const DirectoryAttributeValueEntry& entry) override;
  DirectoryStatus takePiece(DirectoryHandle node, const DirectoryDataBuffer& buffer, std::uint32_t count, bool& more);

  const std::uint32_t maximum_;
  PlistValue records_ = PlistValue::mutableArray();
  bool moreRecords_ = false;
  // What is being read.
  PlistValue record_;
  std::string_view attribute_;
  PlistValue firstValue_;  ///< null until there is one
  PlistValue values_;      ///< all of them, when there are several
};

PlistValue statusAlone(DirectoryStatus status);

/// Runs a listing: what is thrown becomes its answer.
template <class Listing>
PlistValue answerOf(Listing&& listing) noexcept {
  try {
    try {
      return listing();
    } catch (const std::bad_alloc&) {
      return statusAlone(directoryStatus::outOfMemory);
    } catch (...) {
      return statusAlone(directoryStatus::storageFailed);
    }
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace ostrel::detail
