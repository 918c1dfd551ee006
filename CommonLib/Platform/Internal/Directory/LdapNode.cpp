#include "Platform/Internal/Directory/LdapNode.h"

#include <algorithm>
#include <utility>

#include "Platform/Internal/Directory/LdapDirectory.h"
#include "Platform/Internal/Directory/LocalNode.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t longestPassword = 4096;

bool isPassword(std::string_view password) {
  // Bound with an empty one, a connection is anonymous and the server answers success (RFC 4513, 5.1.2).
  return !password.empty() && password.size() <= longestPassword && password.find('\0') == std::string_view::npos;
}

class LdapNode final : public DirectoryNode {
 public:
  explicit LdapNode(const LdapSettings& settings) : directory_(std::make_shared<LdapDirectory>(settings)) {}

  const std::string& path() const override { return directory_->settings().path; }
  bool isReadOnly() const override { return directory_->settings().readOnly; }
  bool isLocallyHosted() const override { return directory_->settings().locallyHosted; }

  DirectoryStatus search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& identity,
                         std::unique_ptr<DirectorySearch>& search) override {
    if (!request.asksForAll() && !std::ranges::all_of(request.patterns, isValueText))
      return directoryStatus::invalidValue;
    search = makeLdapSearch(directory_, directory_->poolOf(identity), request);
    return directoryStatus::success;
  }

  DirectoryStatus openRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer& identity,
                             std::unique_ptr<DirectoryRecord>& record) override {
    const LdapRecordType* known = directory_->typeNamed(type);
    if (known == nullptr) return directoryStatus::recordNotFound;
    return onServer([&] { record = open(*known, name, directory_->poolOf(identity)); });
  }

  DirectoryStatus createRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer& identity,
                               std::unique_ptr<DirectoryRecord>& record) override {
    if (isReadOnly()) return directoryStatus::readOnly;
    if (!isLocalName(type) || !isLdapRecordName(name)) return directoryStatus::invalidName;
    const LdapRecordType* known = directory_->typeNamed(type);
    if (known == nullptr) return directoryStatus::notSupported;
    const auto& pool = directory_->poolOf(identity);
    return onServer([&] {
      if (find(*known, name, *pool)) throw LdapFailure{directoryStatus::recordExists};
      add(*known, name, *pool);
      record = open(*known, name, pool);
    });
  }

  DirectoryStatus authenticate(std::string_view user, std::string_view password,
                               DirectoryIdentityPointer& identity) override {
    std::optional<LdapPlace> found;
    const DirectoryStatus status =
        onServer([&] { found = find(directory_->users(), user, *directory_->poolOf(nullptr)); });
    if (status != directoryStatus::success) return status;
    if (!found) return directoryStatus::userUnknown;
    if (!isPassword(password)) return directoryStatus::passwordRefused;
    try {
      auto pool = std::make_shared<LdapPool>(directory_->servers(), LdapCredentials(found->dn, password));
      pool->giveBack(pool->take());
      identity = std::make_shared<LdapIdentity>(std::move(pool));
      return directoryStatus::success;
    } catch (const LdapFailure& failure) {
      return failure.status;
    }
  }

 private:
  std::optional<LdapPlace> find(const LdapRecordType& type, std::string_view name, LdapPool& pool) {
    return readFrom(pool,
                    [&](LdapConnection& connection) { return findLdapRecord(*directory_, type, name, connection); });
  }

  std::unique_ptr<DirectoryRecord> open(const LdapRecordType& type, std::string_view name,
                                        const std::shared_ptr<LdapPool>& pool) {
    auto found = find(type, name, *pool);
    if (!found) throw LdapFailure{directoryStatus::recordNotFound};
    return makeLdapRecord(directory_, pool, type, std::move(*found));
  }

  // Entries cannot be without some attributes: placeholders stand there until a value is set.
  void add(const LdapRecordType& type, std::string_view name, LdapPool& pool) {
    const std::string& nameAttribute = type.nameAttribute().ldapName;
    std::vector<LdapChange> attributes{{LDAP_MOD_ADD, "objectClass", type.entryClasses()},
                                       {LDAP_MOD_ADD, nameAttribute, {std::string(name)}}};
    for (const LdapPlaceholder& placeholder : type.placeholders())
      if (!sameLdapName(placeholder.ldapName, nameAttribute))
        attributes.push_back({LDAP_MOD_ADD, placeholder.ldapName, {std::string(placeholder.of(name))}});
    const std::string relative = ldapRelativeName(nameAttribute, name);
    const std::string container =
        readFrom(pool, [&](LdapConnection& connection) { return directory_->newEntryBase(type, connection); });
    changeOn(pool, [&](LdapConnection& connection) {
      try {
        connection.add(relative + "," + container, attributes);
      } catch (const LdapFailure& failure) {
        // No such object: it is the container that is missing.
        if (failure.status != directoryStatus::recordNotFound) throw;
        throw LdapFailure{directoryStatus::configurationFault};
      }
    });
  }

  const std::shared_ptr<LdapDirectory> directory_;
};

// libldap makes its process-wide settings at its first use, and threads that come at once are not kept apart: so its
// first use is here, once.
void initializeLibrary() {
  [[maybe_unused]] static const int result = [] {
    int version = 0;
    return ldap_get_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);
  }();
}

}  // namespace

std::unique_ptr<DirectoryNode> makeLdapNode(const std::string& path, const PlistValue& entry, std::string& fault) {
  initializeLibrary();
  const auto settings = readLdapSettings(path, entry, fault);
  return settings ? std::make_unique<LdapNode>(*settings) : nullptr;
}

}  // namespace ostrel::detail
