// Decides who a caller is. The one place where callers are let in.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel {

/// Equality in a time that depends on the lengths alone, so that answers cannot be used to guess byte by byte.
bool equalInConstantTime(std::string_view left, std::string_view right);

/// Nobody is let in but the holders of the session identifiers that it was made with.
/// Threads: immutable; any thread may ask.
class Authenticator {
 public:
  /// A caller who was let in.
  struct Caller {
    std::string user;               ///< the part of the identifier before its first "@"
    std::string sessionIdentifier;  ///< goes back with the reply
  };

  explicit Authenticator(std::vector<std::string> sessionIdentifiers);

  /// Who presents these two header values ("" when the header is absent). Credentials of the Basic scheme let nobody
  /// in: no directory vouches for them. This is where one plugs in.
  std::optional<Caller> authenticate(std::string_view sessionIdentifier, std::string_view authorization) const;

 private:
  const std::vector<std::string> sessionIdentifiers_;
};

}  // namespace ostrel
