// The session identifiers that "ostrelctl login" keeps for later commands.
#pragma once

#include <optional>
#include <string>

namespace ostrel {

/// The session of this user at one daemon, in a file of mode 0600 below "$XDG_RUNTIME_DIR/ostrelctl" or, without that
/// folder, "$XDG_STATE_HOME/ostrelctl" ("~/.local/state/ostrelctl").
class SavedSession {
 public:
  /// `host` and `port` as the daemon is asked there.
  SavedSession(const std::string& host, const std::string& port);

  const std::string& path() const { return path_; }
  /// The identifier; absent when there is none, or others than this user could have written or read the file.
  std::optional<std::string> read() const;
  /// Whether it was written.
  bool write(const std::string& identifier) const;
  /// Whether there was one.
  bool remove() const;

 private:
  std::string path_;
};

}  // namespace ostrel
