// What the listings that answer dictionaries share.
#pragma once

#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Containers/PlistRows.h"
#include "Containers/PlistValue.h"
#include "Directory/Internal/RecordWalk.h"
#include "Platform/DirectoryRecordReader.h"

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
class RecordCollector final : private DirectoryRecordVisitor {
 public:
  explicit RecordCollector(std::uint32_t maximum);

  /// Walks over a search of the node as `walkSearch` does.
  DirectoryStatus collect(DirectoryHandle node, std::uint32_t asked, const SearchStep& step);
  /// The records, a mutable array of mutable dictionaries; once.
  PlistValue takeRecords() { return rows_.finish(); }
  /// Whether there was one behind the last that was collected.
  bool moreRecords() const { return moreRecords_; }

 private:
  DirectoryStatus beginAttribute(std::string_view name, std::uint32_t valueCount) override;
  DirectoryStatus value(std::string_view bytes) override;
  DirectoryStatus takePiece(const DirectoryDataBuffer& buffer, std::uint32_t count, bool& more);
  PlistValue keyFor(std::string_view attribute);

  const std::uint32_t maximum_;
  PlistRows rows_;
  bool moreRecords_ = false;
  std::vector<PlistValue> record_;  ///< the one being read: keys and values in turn
  PlistValue attribute_;
  std::uint32_t valueCount_ = 0;  ///< that the attribute has so far
  /// Records share their keys. Most have the same attributes at the same places.
  std::vector<PlistValue> keyAtPlace_;
  std::unordered_map<std::string, PlistValue> keys_;
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
