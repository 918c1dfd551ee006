// Property lists that decide about access: read only when nobody but their owner could have written them.
#pragma once

#include <optional>
#include <string>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/FileDescriptor.h"

namespace ostrel {

/// The dictionary in the file at `path`, with immutable containers; an empty one when there is no such file. Null when
/// the file cannot be used, and `fault` says why, to go behind the path: it must be a regular file (a link to one
/// counts) of root's or of this process's user, which nobody else may write, of at most 1 MiB. Any thread.
OSTREL_EXPORT PlistValue readTrustedPropertyList(const std::string& path, std::string& fault);

/// Tells one state of a file from another: a file that is written, replaced, removed, or whose owner or mode changes
/// has another state.
class OSTREL_EXPORT FileState {
 public:
  FileState() = default;
  /// Of what the path leads to now.
  static FileState of(const std::string& path);
  friend bool operator==(const FileState& left, const FileState& right) = default;

 private:
  std::uint64_t device_ = 0;
  std::uint64_t inode_ = 0;  ///< 0: no such file
  std::uint64_t size_ = 0;
  std::int64_t changed_ = 0;
};

}  // namespace ostrel
