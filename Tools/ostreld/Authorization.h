// Decides what a caller may run.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/DirectoryMembership.h"
#include "Platform/Mutex.h"
#include "Platform/TrustedPropertyList.h"
#include "ostreld/Authenticator.h"

namespace ostrel {

/// One rule: these users and members of these groups may run these commands.
struct AuthorizationRule {
  struct Module {
    std::string name;
    std::vector<std::string> commands;  ///< "*" for every one
  };
  std::vector<std::string> users;
  std::vector<std::string> groups;
  std::vector<Module> modules;

  bool allows(std::string_view module, std::string_view command) const;
};
using AuthorizationRules = std::vector<AuthorizationRule>;

/// What one caller may run at one moment. Threads: one at a time; may block on disk or network.
class Permissions {
 public:
  Permissions(const Caller& caller, std::shared_ptr<const AuthorizationRules> rules);

  /// Whether the caller still is the user who signed in.
  bool isOfKnownUser() const { return mayRunAll_ || memberships_.has_value(); }
  bool allow(std::string_view module, std::string_view command);

 private:
  bool isMeantBy(std::size_t rule);

  const std::string user_;
  const std::shared_ptr<const AuthorizationRules> rules_;
  std::vector<std::optional<bool>> isMeant_;  ///< by each rule; the members of a batch ask alike
  std::optional<DirectoryMemberships> memberships_;
  bool mayRunAll_ = false;
};

/// The daemon's own user and the members of the group "admin" may run everything; others what the rules of a property
/// list allow (docs/operations.md): nothing without one, and nothing by a damaged one, which is logged. A changed file
/// is read with the next question.
/// Threads: any.
class Authorization {
 public:
  /// `file` as a path of the machine.
  explicit Authorization(std::string file) : file_(std::move(file)) {}
  Permissions permissionsOf(const Caller& caller);

 private:
  std::shared_ptr<const AuthorizationRules> rules();

  const std::string file_;
  Mutex mutex_;
  FileState state_ OSTREL_GUARDED_BY(mutex_);
  std::shared_ptr<const AuthorizationRules> rules_ OSTREL_GUARDED_BY(mutex_);  ///< null when they cannot be used
  std::string fault_ OSTREL_GUARDED_BY(mutex_);                                ///< why, as it was logged last
};

}  // namespace ostrel
