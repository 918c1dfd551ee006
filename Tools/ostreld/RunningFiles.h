// What the daemon leaves below the host root while it runs: the session identifier of its own user, where it listens,
// and its process id.
#pragma once

#include <optional>
#include <string>

#include <utility>

#include "Platform/FileDescriptor.h"
#include "Platform/SocketAddress.h"

namespace ostrel {

/// Makes a session identifier for the user that this process runs as: the user's name, "@" and 32 letters and digits of
/// the kernel's random device. Absent when that device cannot be read.
std::optional<std::string> makeSessionIdentifier();

/// The files of a running daemon (Tools/Shared/DaemonFiles.h names them). At most one daemon runs below one root.
/// Threads: one at a time.
class RunningFiles {
 public:
  /// Takes the process-id file's lock and removes what a daemon that was killed left behind. Absent when another
  /// daemon runs below this root or a folder or file cannot be made; `fault` says which and what to do.
  static std::optional<RunningFiles> claim(std::string& fault);
  /// Removes the files. The lock goes last.
  ~RunningFiles();
  RunningFiles(RunningFiles&&) noexcept = default;
  RunningFiles(const RunningFiles&) = delete;
  RunningFiles& operator=(const RunningFiles&) = delete;

  /// Writes this process's id, the session identifier (mode 0600) and, last, the address: whoever sees that file can
  /// connect. False, with the reason in `fault`, when one cannot be written.
  bool publish(const std::string& sessionIdentifier, const SocketAddress& address, std::string& fault);

 private:
  explicit RunningFiles(FileDescriptor lock) : lock_(std::move(lock)) {}
  FileDescriptor lock_;
};

}  // namespace ostrel
