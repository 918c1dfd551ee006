// The daemon's command line.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Platform/SocketAddress.h"
#include "ostreld/ConnectionTable.h"
#include "ostreld/DaemonCommands.h"
#include "ostreld/SessionTable.h"
#include "ostreld/SignInGate.h"

namespace ostrel {

struct DaemonOptions {
  std::string root;  ///< "" for the real one
  SocketAddress address;
  bool plain = false;
  std::string certificateFile;  ///< "" for the self-signed one
  std::string keyFile;
  bool foreground = false;
  ConnectionLimits connections;
  std::size_t maximumHead = 16 * 1024;         ///< bytes of request line and headers
  std::size_t maximumBody = 16 * 1024 * 1024;  ///< bytes
  BatchLimits batches;
  SessionLimits sessions;
  SignInLimits signIns;
  std::chrono::milliseconds idleInterval{std::chrono::minutes(1)};  ///< 0: no idle passes
  bool crashOnHang = false;
  bool watchNetwork = true;
  std::chrono::milliseconds stopTime{std::chrono::minutes(1)};
};

/// Reads the command line. When the program is to end at once (a help text, a wrong option), the result is absent,
/// the text has been printed and `exitStatus` says how.
std::optional<DaemonOptions> readOptions(int argc, const char* const* argv, int& exitStatus);

}  // namespace ostrel
