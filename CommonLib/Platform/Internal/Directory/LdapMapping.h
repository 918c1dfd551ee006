// How the records and attributes of the directory service stand on an LDAP server (RFC 2307).
#pragma once

#include <ldap.h>

#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Internal/Directory/LdapSettings.h"

namespace ostrel::detail {

/// What the values of an attribute are, beyond text.
enum class LdapMeaning {
  text,
  name,               ///< of the record; one of them is the entry's relative name
  number,             ///< whole decimal
  identifier,         ///< a UUID that the server gives; shown in upper case
  memberIdentifiers,  ///< on the server the members' names, shown as their identifiers
  password,           ///< never shown
};

struct LdapAttribute {
  std::string name;      ///< in the directory service
  std::string ldapName;  ///< on the server
  LdapMeaning meaning = LdapMeaning::text;
};

/// An attribute that entries must have, and what stands there while the record does not have it.
struct LdapPlaceholder {
  std::string ldapName;
  std::string value;  ///< empty: the record's name

  std::string_view of(std::string_view recordName) const { return value.empty() ? recordName : value; }
};

/// The values of an entry's attributes; points into the message that it came in.
class LdapEntry {
 public:
  /// False when the message cannot be read.
  bool read(LDAP* handle, LDAPMessage* message);

  std::string_view dn() const { return dn_; }
  std::span<const std::string_view> valuesOf(std::string_view ldapName) const;
  struct Attribute {
    std::string_view ldapName;
    std::size_t first = 0;
    std::size_t count = 0;
  };
  const std::vector<Attribute>& attributes() const { return attributes_; }
  std::span<const std::string_view> valuesOf(const Attribute& attribute) const {
    return std::span(values_).subspan(attribute.first, attribute.count);
  }

 private:
  std::string_view dn_;
  std::vector<std::string_view> values_;
  std::vector<Attribute> attributes_;
};

/// A type of records.
class LdapRecordType {
 public:
  LdapRecordType(std::string_view name, std::string objectClass, std::vector<std::string> entryClasses,
                 std::vector<LdapPlaceholder> placeholders, std::vector<LdapAttribute> attributes)
      : name_(name),
        objectClass_(std::move(objectClass)),
        entryClasses_(std::move(entryClasses)),
        placeholders_(std::move(placeholders)),
        attributes_(std::move(attributes)) {}

  const std::string& name() const { return name_; }
  /// The class by which entries are known as records of this type; those of new entries.
  const std::string& objectClass() const { return objectClass_; }
  const std::vector<std::string>& entryClasses() const { return entryClasses_; }
  const std::vector<LdapPlaceholder>& placeholders() const { return placeholders_; }
  /// Null when the attribute may be missing.
  const LdapPlaceholder* placeholderFor(const LdapAttribute& attribute) const;
  const std::vector<LdapAttribute>& attributes() const { return attributes_; }
  /// The first: that of the names.
  const LdapAttribute& nameAttribute() const { return attributes_.front(); }
  /// Those of the table, and any "dsAttrTypeNative:x" whose x may be shown. Absent for all others.
  std::optional<LdapAttribute> attributeNamed(std::string_view name) const;
  void override(const std::string& name, const std::string& ldapName);

 private:
  std::string name_;
  std::string objectClass_;
  std::vector<std::string> entryClasses_;
  std::vector<LdapPlaceholder> placeholders_;
  std::vector<LdapAttribute> attributes_;
};

/// Users and groups as configured.
std::vector<LdapRecordType> ldapRecordTypes(const LdapSettings& settings);

/// The entry's names, the one in its distinguished name first.
std::vector<std::string_view> namesOf(const LdapEntry& entry, const LdapRecordType& type);

/// Members' names to their identifiers; those that are unknown are left out.
using LdapMemberIdentifiers = std::function<const std::string*(std::string_view name)>;

/// Puts the attribute's values, as the directory service shows them, into `values`. `names` are the
/// entry's. Views point into the entry, into `names`'s texts and into `storage`. Placeholders are not shown.
void showValues(const LdapEntry& entry, const LdapRecordType& type, const LdapAttribute& attribute,
                std::span<const std::string_view> names, const LdapMemberIdentifiers& identifiers,
                std::vector<std::string_view>& values, std::deque<std::string>& storage);

/// The attribute of the servers that holds an entry's identifier.
inline constexpr const char* ldapIdentifierAttribute = "entryUUID";

/// ASCII letters as capitals.
std::string inUpperCase(std::string_view text);
bool sameLdapName(std::string_view left, std::string_view right);
/// Whether values of this attribute may be shown: no passwords in whatever form.
bool isShownLdapName(std::string_view name);

}  // namespace ostrel::detail
