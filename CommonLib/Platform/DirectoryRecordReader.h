// Reading whole records out of a buffer, without a handle and an entry for each attribute and value.
#pragma once

#include <cstdint>
#include <string_view>

#include "Containers/Export.h"
#include "Platform/DirectoryService.h"

namespace ostrel {

/// What a record is told to, attribute by attribute. The views live as long as the buffer stays as it is. A status
/// other than success ends the reading.
class OSTREL_EXPORT DirectoryRecordVisitor {
 public:
  virtual ~DirectoryRecordVisitor() = default;
  virtual DirectoryStatus beginAttribute(std::string_view name, std::uint32_t valueCount) = 0;
  virtual DirectoryStatus value(std::string_view bytes) = 0;
};

/// Tells a visitor the record at `index` (from 1) in a buffer that a search filled: what `dsGetRecordEntry`,
/// `dsGetAttributeEntry` and `dsGetAttributeValue` would answer, in one walk. `noSuchEntry` past the last record,
/// `invalidArgument` when the buffer holds something else. Threads: any; one buffer on one thread. Throws what the
/// visitor throws.
OSTREL_EXPORT DirectoryStatus readDirectoryRecord(const DirectoryDataBuffer& buffer, std::uint32_t index,
                                                  DirectoryRecordVisitor& visitor);

}  // namespace ostrel
