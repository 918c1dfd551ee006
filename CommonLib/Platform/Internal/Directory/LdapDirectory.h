// What an LDAP node, its searches and its open records share.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/DirectoryNode.h"
#include "Platform/Internal/Directory/LdapMapping.h"
#include "Platform/Internal/Directory/LdapPool.h"

namespace ostrel::detail {

/// Threads: any.
class LdapDirectory {
 public:
  explicit LdapDirectory(const LdapSettings& settings);

  const LdapSettings& settings() const { return servers_->settings(); }
  const std::shared_ptr<LdapServers>& servers() const { return servers_; }
  /// Null when records of this type cannot be here.
  const LdapRecordType* typeNamed(std::string_view name) const;
  const LdapRecordType& users() const { return types_.front(); }

  /// The connections of an identity, or those of the configuration.
  const std::shared_ptr<LdapPool>& poolOf(const DirectoryIdentityPointer& identity) const;

  /// Below which the records of a type are looked for, and new ones made. The server is asked for the base once.
  std::string searchBase(const LdapRecordType& type, LdapConnection& connection);
  std::string newEntryBase(const LdapRecordType& type, LdapConnection& connection);

 private:
  const std::string& containerOf(const LdapRecordType& type) const;
  std::string base(LdapConnection& connection) OSTREL_EXCLUDES(mutex_);

  const std::shared_ptr<LdapServers> servers_;
  const std::vector<LdapRecordType> types_;
  const std::shared_ptr<LdapPool> pool_;
  Mutex mutex_;
  std::string base_ OSTREL_GUARDED_BY(mutex_);
};

/// Who was authenticated: connections that are bound in that name.
struct LdapIdentity final : DirectoryIdentity {
  explicit LdapIdentity(std::shared_ptr<LdapPool> connections) : pool(std::move(connections)) {}
  const std::shared_ptr<LdapPool> pool;
};

/// Users' names to their identifiers and back, asked in batches and remembered.
/// Threads: one at a time.
class LdapMembers {
 public:
  explicit LdapMembers(LdapDirectory& directory) : directory_(directory) {}

  /// Asks for those that are not known yet.
  void learnNames(LdapConnection& connection, std::span<const std::string_view> names);
  void learnIdentifiers(LdapConnection& connection, std::span<const std::string_view> identifiers);
  /// Null when no user has this name, or identifier (in upper case).
  const std::string* identifierOf(std::string_view name) const;
  const std::string* nameOf(std::string_view identifier) const;

 private:
  using Map = std::unordered_map<std::string, std::string>;
  void ask(LdapConnection& connection, std::string_view ldapName, std::span<const std::string_view> values,
           const Map& known);

  LdapDirectory& directory_;
  Map identifiers_;  // by name; empty for names that nobody has
  Map names_;        // by identifier
};

/// Numbers the values of one attribute: the same value has the same number for as long as it stands there, whatever
/// comes and goes around it. Servers number nothing.
void numberValues(std::span<const std::string_view> values, std::vector<DirectoryValue>& numbered);

std::unique_ptr<DirectorySearch> makeLdapSearch(std::shared_ptr<LdapDirectory> directory,
                                                std::shared_ptr<LdapPool> pool, DirectorySearchRequest request);
/// Where a record stands.
struct LdapPlace {
  std::string dn;
  std::string identifier;  ///< as the server spells it; empty when it gives none
};
/// The record that has this name, whatever its case. Throws LdapFailure.
std::optional<LdapPlace> findLdapRecord(LdapDirectory& directory, const LdapRecordType& type, std::string_view name,
                                        LdapConnection& connection);
std::unique_ptr<DirectoryRecord> makeLdapRecord(std::shared_ptr<LdapDirectory> directory,
                                                std::shared_ptr<LdapPool> pool, const LdapRecordType& type,
                                                LdapPlace place);

/// A relative name of one value, escaped (RFC 4514).
std::string ldapRelativeName(std::string_view ldapName, std::string_view value);
/// Text that record names can be: UTF-8 of 1 to 255 bytes without control characters.
bool isLdapRecordName(std::string_view name);

}  // namespace ostrel::detail
