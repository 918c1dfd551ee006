// The folder below which the library finds the host's files.
#pragma once

#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// Where the library finds the fixed `path` (absolute) of this host: the host root followed by the path as it is
/// spelled, doubled slashes included. The host root is "" unless set.
/// Threads: safe once `setHostRoot` has run.
OSTREL_EXPORT std::string hostPath(std::string_view path);

/// The host root, without a trailing slash; "" for the real one.
OSTREL_EXPORT const std::string& hostRoot();

/// Sets the host root for the whole process; a trailing slash is dropped. Call it at start, before other threads run.
OSTREL_EXPORT void setHostRoot(std::string_view folder);

/// Sets the host root for a scope and restores the former one. For tests.
class OSTREL_EXPORT ScopedHostRoot {
 public:
  explicit ScopedHostRoot(std::string_view folder);
  ~ScopedHostRoot();
  ScopedHostRoot(const ScopedHostRoot&) = delete;
  ScopedHostRoot& operator=(const ScopedHostRoot&) = delete;

 private:
  std::string previous_;
};

}  // namespace ostrel
