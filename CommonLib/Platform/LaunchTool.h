// The launcher's own control tool, "/bin/launchctl", where a host has it.
#pragma once

#include <optional>
#include <string>

#include "Containers/Export.h"
#include "Platform/LaunchData.h"

namespace ostrel {

// Safe from any thread.

/// "/bin/launchctl" below the host root, if this process may run it.
OSTREL_EXPORT std::optional<std::string> launchTool();

/// Every job that the tool lists: a dictionary from label to the job's dictionary of "Label", "LastExitStatus" (integer
/// as the tool prints it) and, while it runs, "PID" (integer). Runs `tool` with the argument "list" and reads its three
/// columns; absent when it does not exit with 0 within 10 seconds or prints more than 8 MiB.
OSTREL_EXPORT std::optional<LaunchData> jobsOfLaunchTool(const std::string& tool);

}  // namespace ostrel
