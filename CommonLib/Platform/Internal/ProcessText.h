// Reads the texts of /proc (proc(5)). Pure functions over bytes.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Platform/ProcessTable.h"
#include "Platform/ProcessorTimes.h"

namespace ostrel::detail {

/// /proc/PID/stat. The command stands between the first "(" and the last ")", since it may hold both, spaces and line
/// feeds; one that is too long is cut. Absent when a field up to the 22nd is missing or is not what it should be.
OSTREL_EXPORT std::optional<ProcessEntry> parseProcessStat(std::string_view text) noexcept;

/// The "Tgid" of /proc/PID/status: the process that a thread belongs to. 0 when it is not there.
OSTREL_EXPORT pid_t parseThreadGroup(std::string_view text) noexcept;

/// The "cpuN" lines of /proc/stat, one for each running processor; empty when there is none or one is malformed.
OSTREL_EXPORT std::vector<ProcessorTicks> parseProcessorTicks(std::string_view text);

/// The file name that a path ends in, without the mark that the kernel puts behind the path of a removed program.
OSTREL_EXPORT std::string_view programName(std::string_view path) noexcept;

}  // namespace ostrel::detail
