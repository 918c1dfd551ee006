// Passwords, from a file or asked for on the terminal.
#pragma once

#include <optional>
#include <string>

namespace ostrel {

/// The password of a user: the first line of the file ("-": standard input), or, without one, asked for on the terminal
/// and not shown. Absent with the reason in `fault`, which names `option`, the one that gives a file.
std::optional<std::string> passwordOf(const std::string& user, const std::string& file, std::string& fault,
                                      const char* option = "--password-file");

/// A new password of a user, likewise, asked for twice. It has 8 to 511 bytes of text without control characters, at
/// least four different ones, and is not the user's name.
std::optional<std::string> newPasswordOf(const std::string& user, const std::string& file, std::string& fault,
                                         const char* option = "--password-file");

}  // namespace ostrel
