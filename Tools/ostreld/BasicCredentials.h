// The value of an "Authorization" header of the Basic scheme (RFC 7617). A pure function over bytes that a stranger
// wrote.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostrel {

/// A name and a password. The password is wiped when the object ends.
class BasicCredentials {
 public:
  BasicCredentials(std::string name, std::string secret) : user(std::move(name)), password(std::move(secret)) {}
  BasicCredentials(BasicCredentials&&) = default;
  BasicCredentials& operator=(BasicCredentials&&) = default;
  BasicCredentials(const BasicCredentials&) = delete;
  BasicCredentials& operator=(const BasicCredentials&) = delete;
  ~BasicCredentials();

  std::string user;      ///< 1 to 255 bytes of UTF-8 without control characters
  std::string password;  ///< at most 511 bytes likewise; may be empty
};

/// Absent for another scheme and for what is not "Basic", spaces and the Base64 of a user name, ":" and a password as
/// above. The first colon counts: names hold none.
std::optional<BasicCredentials> readBasicCredentials(std::string_view header);

}  // namespace ostrel
