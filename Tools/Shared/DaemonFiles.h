// The files below the host root that the daemon keeps and the command-line client looks for.
#pragma once

#include <string>

#include "Platform/HostRoot.h"

namespace ostrel::daemonFiles {

inline std::string stateFolder() { return hostPath("/var/ostreld"); }
/// One line: the session identifier of the daemon's own user. Mode 0600; there while the daemon runs.
inline std::string localSession() { return stateFolder() + "/local_session"; }
/// One line: the numeric address, a space and the port that the daemon listens on; there while it runs.
inline std::string endpoint() { return stateFolder() + "/endpoint"; }
/// The daemon's process id. The daemon holds an exclusive lock on it; the file stays when it stops.
inline std::string processId() { return stateFolder() + "/ostreld.pid"; }
/// The self-signed certificate with its key (mode 0600), and the certificate alone, for clients to trust.
inline std::string certificateWithKey() { return stateFolder() + "/ostreld.pem"; }
inline std::string certificate() { return stateFolder() + "/certificate.pem"; }

}  // namespace ostrel::daemonFiles
