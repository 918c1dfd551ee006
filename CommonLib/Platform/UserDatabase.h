// The host's users and groups, through the name service (getpwnam_r(3) and its kin).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

struct UserEntry {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;  ///< primary group
  std::string fullName;
  std::string home;
  std::string shell;
};

struct GroupEntry {
  std::string name;
  gid_t gid = 0;
  std::vector<std::string> members;  ///< as the group's record lists them: users by primary group are not among them
};

/// Threads: every operation may be called from any thread. Each may block on a remote name service. A name that is
/// empty or holds a NUL names nobody. Lookups that fail are answered as not found.
class OSTREL_EXPORT UserDatabase {
 public:
  virtual ~UserDatabase() = default;
  static UserDatabase& current() { return *slot().load(std::memory_order_acquire); }

  virtual std::optional<UserEntry> userNamed(const std::string& name) = 0;
  virtual std::optional<UserEntry> userWithId(uid_t uid) = 0;
  virtual std::optional<GroupEntry> groupNamed(const std::string& name) = 0;
  virtual std::optional<GroupEntry> groupWithId(gid_t gid) = 0;
  /// The ids of all groups of a user, the primary one included; empty when there is no such user.
  virtual std::vector<gid_t> groupsOfUser(const std::string& name) = 0;
  /// Every user, every group that the name service enumerates, in its order. Some services look up and do not
  /// enumerate. One thread at a time: the others wait.
  virtual std::vector<UserEntry> allUsers() { return {}; }
  virtual std::vector<GroupEntry> allGroups() { return {}; }
  /// The hash of a user's password (crypt(5)) from the shadow database. Absent when there is none, when the account has
  /// expired, and when this process may not read it.
  virtual std::optional<std::string> passwordHashOf(const std::string&) { return std::nullopt; }

 private:
  friend class ScopedOverride<UserDatabase>;
  static std::atomic<UserDatabase*>& slot();
};

}  // namespace ostrel
