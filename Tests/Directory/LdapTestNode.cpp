// The node of the tests that is an LDAP server.
#include <map>

#include "Containers/Base64.h"
#include "Containers/Format.h"
#include "Directory/NodeFixture.h"

namespace ostrel::testing {
namespace {

// The name of a value in an entry's name: any byte may be written as two digits.
std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : value) text += format("\\%02x", static_cast<unsigned char>(c));
  return text;
}

class LdapTestNode final : public TestNode {
 public:
  explicit LdapTestNode(const std::string& hostRoot) : slapd_({.users = 0, .groups = 0}) {
    writeDirectoryConfiguration(hostRoot,
                                PlistValue::dictionaryOf({{"HostNode", false},
                                                          {"Nodes", PlistValue::arrayOf({slapd_.entry(hostRoot)})},
                                                          {"SearchPath", PlistValue::arrayOf({"/LDAP/example"})}}));
  }

  std::string path() const override { return "/LDAP/example"; }
  bool holdsAnything() const override { return false; }

  void add(const std::vector<SeedRecord>& records) override {
    std::string entries;
    for (const SeedRecord& record : records) entries += record.type == usersType ? user(record) : group(record);
    slapd_.add(entries);
  }

 private:
  using Names = std::map<std::string, std::string>;
  using Values = std::map<std::string, std::vector<std::string>>;

  static std::string user(const SeedRecord& record) {
    static const Names names = {{nameAttribute, "uid"},
                                {idAttribute, "uidNumber"},
                                {"dsAttrTypeStandard:PrimaryGroupID", "gidNumber"},
                                {"dsAttrTypeStandard:RealName", "cn"},
                                {"dsAttrTypeStandard:Password", "userPassword"},
                                {"dsAttrTypeStandard:GeneratedUID", "entryUUID"},
                                {"dsAttrTypeNative:home", "homeDirectory"},
                                {"dsAttrTypeStandard:UserShell", "loginShell"}};
    return entry(
        "uid=" + escaped(record.name) + ",ou=people", record, names,
        {{"objectClass", {"inetOrgPerson", "posixAccount"}}, {"uid", {record.name}}, {"sn", {record.name}}},
        {{"cn", record.name}, {"uidNumber", "65534"}, {"gidNumber", "65534"}, {"homeDirectory", "/nonexistent"}});
  }

  static std::string group(const SeedRecord& record) {
    static const Names names = {{nameAttribute, "cn"},
                                {"dsAttrTypeStandard:PrimaryGroupID", "gidNumber"},
                                {"dsAttrTypeStandard:RealName", "description"},
                                {"dsAttrTypeStandard:GeneratedUID", "entryUUID"},
                                {"dsAttrTypeStandard:Member", "memberUid"},
                                {"dsAttrTypeStandard:GroupMembership", "memberUid"}};
    return entry("cn=" + escaped(record.name) + ",ou=groups", record, names,
                 {{"objectClass", {"posixGroup"}}, {"cn", {record.name}}}, {{"gidNumber", "65534"}});
  }

  // The values of an attribute stand together: slapadd takes them for two attributes otherwise.
  static std::string entry(const std::string& place, const SeedRecord& record, const Names& names, Values values,
                           const Names& needed) {
    for (const auto& [attribute, texts] : record.attributes) {
      const auto known = names.find(attribute);
      if (known == names.end()) continue;
      auto& present = values[known->second];
      present.insert(present.end(), texts.begin(), texts.end());
    }
    for (const auto& [attribute, text] : needed)
      if (values[attribute].empty()) values[attribute] = {text};
    std::string lines = "dn: " + place + "," + Slapd::base + "\n";
    for (const auto& [attribute, texts] : values)
      for (const std::string& text : texts) lines += attribute + ":: " + encodeBase64(text) + "\n";
    return lines + "\n";
  }

  Slapd slapd_;
};

}  // namespace

std::unique_ptr<TestNode> makeLdapTestNode(const std::string& hostRoot) {
  return std::make_unique<LdapTestNode>(hostRoot);
}

}  // namespace ostrel::testing
