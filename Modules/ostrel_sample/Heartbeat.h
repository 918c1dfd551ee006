// The service that the sample module administers: a child process that touches a file every second.
#pragma once

#include <optional>
#include <string>

#include "Platform/ProcessTable.h"

namespace ostrel::sample {

/// Starts the service, which touches `file` until it is stopped or the file's folder is gone. It outlives this process,
/// as a real service would; while this process lives, its end is collected. Absent, with errno, when it cannot start.
std::optional<ProcessIdentity> startHeartbeat(const std::string& file);

bool isRunning(const ProcessIdentity& process);

/// Ends the service and waits until it is gone; what ignores the polite request is killed. True when it is gone.
bool stopHeartbeat(const ProcessIdentity& process);

}  // namespace ostrel::sample
