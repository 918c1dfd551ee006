// A node with a session of its own.
#pragma once

#include <cstdint>

#include "Containers/PlistValue.h"
#include "Directory/Internal/Released.h"

namespace ostrel::detail {

/// Closes both at the end of its scope.
class OpenedNode {
 public:
  /// Opens the node at a path or, when that is no string, the one of a type.
  DirectoryStatus open(const PlistValue& path, std::uint32_t type);

  DirectoryHandle session() const { return session_.get(); }
  DirectoryHandle node() const { return node_.get(); }
  /// Null when the node was opened by its path.
  const char* foundPath() const { return foundPath_.get(); }

 private:
  ReleasedSession session_;
  ReleasedNode node_;
  ReleasedText foundPath_;
};

}  // namespace ostrel::detail
