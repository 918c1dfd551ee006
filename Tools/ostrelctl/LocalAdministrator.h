// Users of the local directory node that "ostrelctl directory" makes and changes, without the daemon.
#pragma once

#include <optional>
#include <string>

namespace ostrel {

/// Whoever is an administrator of this machine already: a member of the local node's group "admin" whom the directory
/// knows and, if it is the local node's, who has a password. `fault` is set when that cannot be told.
std::optional<std::string> knownAdministrator(std::string& fault);

/// Makes the user, with its password, and the group "admin" with the user as a member, as far as they are not there;
/// a user who is there gets the password. What was done of it before an interruption is completed: membership comes
/// last. False, with the reason in `fault`, also when another node on the search path has a user of this name.
bool makeAdministrator(const std::string& user, const std::string& realName, const std::string& password,
                       std::string& fault);

/// Gives a user of the local node a new password.
bool setLocalPassword(const std::string& user, const std::string& password, std::string& fault);

}  // namespace ostrel
