// The machine's memory as the kernel tells it (/proc/meminfo, proc(5)).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

struct HostMemory {
  std::uint64_t total = 0;      ///< bytes
  std::uint64_t available = 0;  ///< bytes that programs can get without swapping; not more than `total`
};

/// Reads the text of /proc/meminfo. Absent when it lacks one of the two, or they make no sense. A pure function.
OSTREL_EXPORT std::optional<HostMemory> parseHostMemory(std::string_view text);

/// The memory now. Absent when the kernel does not tell. Threads: may be called from any thread.
OSTREL_EXPORT std::optional<HostMemory> hostMemory();

}  // namespace ostrel
