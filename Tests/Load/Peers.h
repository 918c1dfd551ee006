// The daemon and nginx under the same clients, in turns.
#pragma once

#include <chrono>

#include "Containers/PlistValue.h"
#include "Tools/DaemonProcess.h"

namespace ostrel::load {

/// Sends the same small command from `clients` threads to the daemon and to nginx, which answers with the same bytes
/// without doing anything, in turns of a few seconds, `duration` in all. For each: "perSecond", "medianMicroseconds"
/// and "p99Microseconds"; and "ratio", the daemon's rate over nginx's.
PlistValue compareWithNginx(const testing::DaemonProcess& daemon, const std::string& module, std::size_t clients,
                            std::chrono::milliseconds duration);

}  // namespace ostrel::load
