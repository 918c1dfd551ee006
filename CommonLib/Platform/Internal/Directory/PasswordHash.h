// Passwords as hashes of crypt(5).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostrel::detail {

/// A yescrypt hash with a new salt. Absent for a password that is too long (over 511 bytes) or holds NUL.
std::optional<std::string> hashPassword(std::string_view password);
/// Whether the password gives this hash, compared in constant time. False for an empty password, and for a hash that is
/// none ("", or "*" or "!" for a locked account); that takes as long as a yescrypt hash, so that the time does not tell
/// whether there is a password.
bool passwordMatches(std::string_view password, const std::string& hash);

}  // namespace ostrel::detail
