#include "Platform/Internal/Directory/LdapDirectory.h"

#include <algorithm>
#include <unordered_set>

#include "Platform/Internal/Directory/LdapFilter.h"
#include "Platform/Internal/Directory/LocalNode.h"
#include "Platform/SystemLog.h"

namespace ostrel::detail {
namespace {

// Enough for a page of large groups; a search that meets more asks anew.
constexpr std::size_t mostMembers = 100000;

std::uint32_t hashOf(std::string_view value) {
  const std::uint64_t hash = std::hash<std::string_view>()(value);
  return std::max<std::uint32_t>(static_cast<std::uint32_t>(hash ^ (hash >> 32U)), 1);
}

}  // namespace

LdapDirectory::LdapDirectory(const LdapSettings& settings)
    : servers_(std::make_shared<LdapServers>(settings)),
      types_(ldapRecordTypes(settings)),
      pool_(std::make_shared<LdapPool>(servers_, settings.credentials)),
      base_(settings.base) {}

const LdapRecordType* LdapDirectory::typeNamed(std::string_view name) const {
  const auto found = std::ranges::find_if(types_, [&](const LdapRecordType& type) { return type.name() == name; });
  return found == types_.end() ? nullptr : &*found;
}

const std::shared_ptr<LdapPool>& LdapDirectory::poolOf(const DirectoryIdentityPointer& identity) const {
  const auto* known = dynamic_cast<const LdapIdentity*>(identity.get());
  return known == nullptr ? pool_ : known->pool;
}

const std::string& LdapDirectory::containerOf(const LdapRecordType& type) const {
  return &type == &users() ? settings().usersContainer : settings().groupsContainer;
}

std::string LdapDirectory::searchBase(const LdapRecordType& type, LdapConnection& connection) {
  const std::string& container = containerOf(type);
  return container.empty() ? base(connection) : container;
}

std::string LdapDirectory::newEntryBase(const LdapRecordType& type, LdapConnection& connection) {
  const std::string& container = containerOf(type);
  if (!container.empty()) return container;
  return (&type == &users() ? "ou=people," : "ou=groups,") + base(connection);
}

// From what the server tells of itself (RFC 4512, 5.1).
std::string LdapDirectory::base(LdapConnection& connection) {
  {
    const MutexLock lock(mutex_);
    if (!base_.empty()) return base_;
  }
  const auto page =
      connection.search({"", LDAP_SCOPE_BASE, "(objectClass=*)", {"defaultNamingContext", "namingContexts"}});
  LDAPMessage* message = page.messages ? ldap_first_entry(connection.handle(), page.messages.get()) : nullptr;
  LdapEntry entry;
  if (message == nullptr || !entry.read(connection.handle(), message))
    throw LdapFailure{directoryStatus::configurationFault};
  auto found = entry.valuesOf("defaultNamingContext");
  if (found.empty()) found = entry.valuesOf("namingContexts");
  if (found.empty() || found.front().empty()) {
    logNotice("[%d] directory node %s: no \"Base\", and the server names none", processId(), settings().path);
    throw LdapFailure{directoryStatus::configurationFault};
  }
  const MutexLock lock(mutex_);
  return base_ = found.front();
}

void LdapMembers::learnNames(LdapConnection& connection, std::span<const std::string_view> names) {
  if (identifiers_.size() > mostMembers) identifiers_.clear();
  const std::string& ldapName = directory_.users().nameAttribute().ldapName;
  ask(connection, ldapName, names, identifiers_);
  for (const std::string_view name : names) identifiers_.try_emplace(std::string(name));
}

void LdapMembers::learnIdentifiers(LdapConnection& connection, std::span<const std::string_view> identifiers) {
  ask(connection, ldapIdentifierAttribute, identifiers, names_);
}

void LdapMembers::ask(LdapConnection& connection, std::string_view ldapName, std::span<const std::string_view> values,
                      const Map& known) {
  std::unordered_set<std::string_view> asked;
  std::vector<std::string> conditions;
  for (const std::string_view value : values)
    if (!known.contains(std::string(value)) && asked.insert(value).second)
      conditions.push_back(equalityFilter(ldapName, value));
  if (conditions.empty()) return;
  const LdapRecordType& users = directory_.users();
  const std::string& nameAttribute = users.nameAttribute().ldapName;
  const std::string base = directory_.searchBase(users, connection);
  LdapEntry entry;
  for (std::string& filter : joinedFilters(users, conditions)) {
    const auto page =
        connection.search({base, LDAP_SCOPE_SUBTREE, std::move(filter), {nameAttribute, ldapIdentifierAttribute}});
    LDAP* handle = connection.handle();
    for (LDAPMessage* message = ldap_first_entry(handle, page.messages.get()); message != nullptr;
         message = ldap_next_entry(handle, message)) {
      if (!entry.read(handle, message)) throw LdapFailure{directoryStatus::dataDamaged};
      const auto names = namesOf(entry, users);
      const auto identifier = entry.valuesOf(ldapIdentifierAttribute);
      if (names.empty() || identifier.empty()) continue;
      const std::string shown = inUpperCase(identifier.front());
      for (const std::string_view name : names) identifiers_.insert_or_assign(std::string(name), shown);
      names_.insert_or_assign(shown, std::string(names.front()));
    }
  }
}

const std::string* LdapMembers::identifierOf(std::string_view name) const {
  const auto found = identifiers_.find(std::string(name));
  return found == identifiers_.end() || found->second.empty() ? nullptr : &found->second;
}

const std::string* LdapMembers::nameOf(std::string_view identifier) const {
  const auto found = names_.find(std::string(identifier));
  return found == names_.end() ? nullptr : &found->second;
}

void numberValues(std::span<const std::string_view> values, std::vector<DirectoryValue>& numbered) {
  if (values.size() == 1) {
    numbered.push_back({hashOf(values.front()), values.front()});
    return;
  }
  std::unordered_set<std::uint32_t> given;
  for (const std::string_view value : values) {
    std::uint32_t number = hashOf(value);
    while (number == 0 || !given.insert(number).second) ++number;
    numbered.push_back({number, value});
  }
}

std::string ldapRelativeName(std::string_view ldapName, std::string_view value) {
  // Any byte may be written as two digits (RFC 4514, 2.4).
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string relative = std::string(ldapName) + "=";
  for (const char c : value) {
    const bool isPlain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
    const auto byte = static_cast<unsigned char>(c);
    if (isPlain)
      relative += c;
    else
      relative += {'\\', digits[byte >> 4U], digits[byte & 15U]};
  }
  return relative;
}

bool isLdapRecordName(std::string_view name) { return isLocalName(name) && name != directoryName::allRecords; }

}  // namespace ostrel::detail
