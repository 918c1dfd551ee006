// Tells the service manager how the daemon fares (the protocol of sd_notify(3)).
#pragma once

#include <string_view>

namespace ostrel {

/// Sends one state ("READY=1", "STOPPING=1") to the socket that NOTIFY_SOCKET names. Without that variable nothing
/// happens; a state that cannot be sent is lost. Threads: not while another thread changes the environment.
void notifyServiceManager(std::string_view state);

}  // namespace ostrel
