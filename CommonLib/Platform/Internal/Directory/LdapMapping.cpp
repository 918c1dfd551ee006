#include "Platform/Internal/Directory/LdapMapping.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <memory>

#include "Platform/DirectoryTypes.h"

namespace ostrel::detail {
namespace {

constexpr std::string_view nativePrefix = "dsAttrTypeNative:";
// Numbers and a folder that give nobody anything: "nobody" and "nogroup" of Debian.
constexpr const char* noNumber = "65534";
constexpr const char* noFolder = "/nonexistent";

std::vector<LdapAttribute> userAttributes() {
  using namespace directoryName;
  return {{std::string(recordName), "uid", LdapMeaning::name},
          {std::string(uniqueID), "uidNumber", LdapMeaning::number},
          {std::string(primaryGroupID), "gidNumber", LdapMeaning::number},
          {std::string(realName), "cn"},
          {std::string(homeDirectory), "homeDirectory"},
          {std::string(nativeHome), "homeDirectory"},
          {std::string(userShell), "loginShell"},
          {std::string(password), "userPassword", LdapMeaning::password},
          {std::string(generatedUID), ldapIdentifierAttribute, LdapMeaning::identifier},
          {"dsAttrTypeStandard:LastName", "sn"},
          {"dsAttrTypeStandard:FirstName", "givenName"},
          {"dsAttrTypeStandard:EMailAddress", "mail"},
          {"dsAttrTypeStandard:PhoneNumber", "telephoneNumber"},
          {"dsAttrTypeStandard:Comment", "description"}};
}

std::vector<LdapAttribute> groupAttributes() {
  using namespace directoryName;
  return {{std::string(recordName), "cn", LdapMeaning::name},
          {std::string(primaryGroupID), "gidNumber", LdapMeaning::number},
          {std::string(realName), "description"},
          {std::string(password), "userPassword", LdapMeaning::password},
          {std::string(generatedUID), ldapIdentifierAttribute, LdapMeaning::identifier},
          {std::string(member), "memberUid"},
          {std::string(groupMembership), "memberUid"},
          {std::string(groupMembers), "memberUid", LdapMeaning::memberIdentifiers}};
}

// The value of an entry's relative name; empty when it cannot be told.
std::string relativeNameOf(std::string_view dn, std::string_view ldapName) {
  LDAPDN parts = nullptr;
  if (ldap_str2dn(std::string(dn).c_str(), &parts, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) return {};
  const std::unique_ptr<LDAPRDN, decltype(&ldap_dnfree)> owned(parts, &ldap_dnfree);
  if (parts == nullptr || parts[0] == nullptr) return {};
  for (LDAPAVA** part = parts[0]; *part != nullptr; ++part)
    if (sameLdapName({(*part)->la_attr.bv_val, (*part)->la_attr.bv_len}, ldapName))
      return {(*part)->la_value.bv_val, (*part)->la_value.bv_len};
  return {};
}

}  // namespace

std::string inUpperCase(std::string_view text) {
  std::string upper(text);
  std::ranges::transform(upper, upper.begin(),
                         [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return upper;
}

bool sameLdapName(std::string_view left, std::string_view right) {
  return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool isShownLdapName(std::string_view name) {
  constexpr std::array<std::string_view, 8> secrets = {"userpassword",    "authpassword",        "unicodepwd",
                                                       "pwdhistory",      "sambantpassword",     "sambalmpassword",
                                                       "krbprincipalkey", "sambapasswordhistory"};
  const std::string_view plain = name.substr(0, name.find(';'));
  return std::ranges::none_of(secrets, [&](std::string_view secret) { return sameLdapName(plain, secret); });
}

bool LdapEntry::read(LDAP* handle, LDAPMessage* message) {
  values_.clear();
  attributes_.clear();
  BerElement* element = nullptr;
  berval dn{0, nullptr};
  if (ldap_get_dn_ber(handle, message, &element, &dn) != LDAP_SUCCESS) return false;
  const std::unique_ptr<BerElement, void (*)(BerElement*)> owned(element,
                                                                 [](BerElement* ended) { ber_free(ended, 0); });
  dn_ = {dn.bv_val, dn.bv_len};
  for (;;) {
    berval name{0, nullptr};
    berval* values = nullptr;
    if (ldap_get_attribute_ber(handle, message, element, &name, &values) != LDAP_SUCCESS) return false;
    const std::unique_ptr<berval, decltype(&ber_memfree)> ownedValues(values, &ber_memfree);
    if (name.bv_val == nullptr) return true;
    Attribute attribute{{name.bv_val, name.bv_len}, values_.size(), 0};
    for (const berval* value = values; value != nullptr && value->bv_val != nullptr; ++value)
      values_.emplace_back(value->bv_val, value->bv_len);
    attribute.count = values_.size() - attribute.first;
    if (attribute.count > 0) attributes_.push_back(attribute);
  }
}

std::span<const std::string_view> LdapEntry::valuesOf(std::string_view ldapName) const {
  for (const Attribute& attribute : attributes_)
    if (sameLdapName(attribute.ldapName, ldapName)) return valuesOf(attribute);
  return {};
}

std::optional<LdapAttribute> LdapRecordType::attributeNamed(std::string_view name) const {
  const auto found = std::ranges::find(attributes_, name, &LdapAttribute::name);
  if (found != attributes_.end()) return *found;
  if (!name.starts_with(nativePrefix)) return std::nullopt;
  const std::string_view ldapName = name.substr(nativePrefix.size());
  if (!isLdapName(ldapName) || sameLdapName(ldapName, "objectClass")) return std::nullopt;
  // One that the table has keeps its meaning under its own name.
  for (const LdapAttribute& known : attributes_)
    if (sameLdapName(known.ldapName, ldapName) && known.meaning != LdapMeaning::memberIdentifiers) {
      LdapAttribute native = known;
      native.name = name;
      return native;
    }
  if (!isShownLdapName(ldapName)) return std::nullopt;
  return LdapAttribute{std::string(name), std::string(ldapName)};
}

const LdapPlaceholder* LdapRecordType::placeholderFor(const LdapAttribute& attribute) const {
  if (attribute.meaning == LdapMeaning::name) return nullptr;
  const auto found = std::ranges::find_if(
      placeholders_, [&](const LdapPlaceholder& known) { return sameLdapName(known.ldapName, attribute.ldapName); });
  return found == placeholders_.end() ? nullptr : &*found;
}

void LdapRecordType::override(const std::string& name, const std::string& ldapName) {
  const auto found = std::ranges::find(attributes_, name, &LdapAttribute::name);
  if (found == attributes_.end()) {
    attributes_.push_back({name, ldapName});
    return;
  }
  found->ldapName = ldapName;
}

std::vector<LdapRecordType> ldapRecordTypes(const LdapSettings& settings) {
  std::vector<LdapRecordType> types;
  types.emplace_back(directoryName::users, "posixAccount", std::vector<std::string>{"inetOrgPerson", "posixAccount"},
                     std::vector<LdapPlaceholder>{{"uid", ""},
                                                  {"cn", ""},
                                                  {"sn", ""},
                                                  {"uidNumber", noNumber},
                                                  {"gidNumber", noNumber},
                                                  {"homeDirectory", noFolder}},
                     userAttributes());
  types.emplace_back(directoryName::groups, "posixGroup", std::vector<std::string>{"posixGroup"},
                     std::vector<LdapPlaceholder>{{"cn", ""}, {"gidNumber", noNumber}}, groupAttributes());
  for (const auto& [name, ldapName] : settings.userAttributes) types[0].override(name, ldapName);
  for (const auto& [name, ldapName] : settings.groupAttributes) types[1].override(name, ldapName);
  return types;
}

std::vector<std::string_view> namesOf(const LdapEntry& entry, const LdapRecordType& type) {
  const auto values = entry.valuesOf(type.nameAttribute().ldapName);
  std::vector<std::string_view> names(values.begin(), values.end());
  if (names.size() < 2) return names;
  const auto first = std::ranges::find(names, relativeNameOf(entry.dn(), type.nameAttribute().ldapName));
  if (first != names.end()) std::rotate(names.begin(), first, first + 1);
  return names;
}

void showValues(const LdapEntry& entry, const LdapRecordType& type, const LdapAttribute& attribute,
                std::span<const std::string_view> names, const LdapMemberIdentifiers& identifiers,
                std::vector<std::string_view>& values, std::deque<std::string>& storage) {
  if (attribute.meaning == LdapMeaning::name) {
    values.insert(values.end(), names.begin(), names.end());
    return;
  }
  const auto raw = entry.valuesOf(attribute.ldapName);
  if (attribute.meaning == LdapMeaning::password) {
    if (!raw.empty()) values.push_back(directoryName::hiddenPassword);
    return;
  }
  const LdapPlaceholder* placeholder = type.placeholderFor(attribute);
  for (const std::string_view value : raw) {
    if (placeholder != nullptr && !names.empty() && value == placeholder->of(names.front())) continue;
    if (attribute.meaning == LdapMeaning::identifier) {
      values.push_back(storage.emplace_back(inUpperCase(value)));
    } else if (attribute.meaning == LdapMeaning::memberIdentifiers) {
      const std::string* identifier = identifiers ? identifiers(value) : nullptr;
      if (identifier != nullptr) values.push_back(*identifier);
    } else {
      values.push_back(value);
    }
  }
}

}  // namespace ostrel::detail
