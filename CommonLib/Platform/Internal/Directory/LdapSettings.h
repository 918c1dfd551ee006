// What the configuration tells of an LDAP node. docs/directory.md describes the entry.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// Who a connection is bound as; both empty: anonymous. The password is wiped when the object ends.
struct LdapCredentials {
  LdapCredentials() = default;
  LdapCredentials(std::string name, std::string_view secret) : dn(std::move(name)), password(secret) {}
  LdapCredentials(const LdapCredentials&) = default;
  LdapCredentials& operator=(const LdapCredentials&) = delete;
  ~LdapCredentials();

  std::string dn;
  std::string password;
};

struct LdapServer {
  std::string url;  ///< "ldap://HOST:PORT" or "ldaps://HOST:PORT"
  std::string host;
  std::uint16_t port = 0;
  bool encryptedFromStart = false;  ///< ldaps
  bool startTLS = false;

  bool usesTLS() const { return encryptedFromStart || startTLS; }
};

struct LdapSettings {
  std::string path;
  std::vector<LdapServer> servers;
  std::string base;             ///< empty: the server is asked
  std::string usersContainer;   ///< empty: users are looked for below the base
  std::string groupsContainer;  ///< the same for groups
  std::string caFile;           ///< the certificates that sign those of the servers
  LdapCredentials credentials;
  std::chrono::milliseconds connectTimeout{5000};  ///< for a connection with TLS and bind
  std::chrono::milliseconds answerTimeout{15000};  ///< for every answer
  std::uint32_t pageSize = 1000;
  std::uint32_t connections = 8;  ///< at most at once, for one identity
  bool readOnly = false;
  bool locallyHosted = false;
  /// Names of a type's attributes in the directory service to those on the server.
  std::map<std::string, std::string, std::less<>> userAttributes;
  std::map<std::string, std::string, std::less<>> groupAttributes;
};

/// Reads an entry of the nodes' configuration. Absent when it cannot be used; `fault` says why, without secrets.
std::optional<LdapSettings> readLdapSettings(const std::string& path, const PlistValue& entry, std::string& fault);

/// Whether a text can be the name of an LDAP attribute here: letters, digits and hyphens, no options and no numeric
/// form (RFC 4512, 2.5), because those would be other names for attributes that must not be shown.
bool isLdapName(std::string_view name);

/// The server that a URL names. Absent when it is none, or has a path.
std::optional<LdapServer> ldapServer(std::string_view url);

}  // namespace ostrel::detail
