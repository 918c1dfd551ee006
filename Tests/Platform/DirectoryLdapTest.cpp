// The LDAP node against Debian's slapd, and against servers that are none. What every kind of node answers alike is
// tested in Tests/Directory.
#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "ClientSession/TestCertificate.h"
#include "Containers/Format.h"
#include "Platform/DirectoryNode.h"
#include "Support/DirectoryFixture.h"
#include "Support/Loopback.h"
#include "Support/SlapdFixture.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;

namespace {

constexpr const char* realName = "dsAttrTypeStandard:RealName";
constexpr const char* passwordAttribute = "dsAttrTypeStandard:Password";
constexpr const char* groupMembers = "dsAttrTypeStandard:GroupMembers";

using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

class LdapNode : public DirectoryFixture {
 protected:
  void SetUp() override {
    if (!Slapd::isInstalled()) GTEST_SKIP() << "slapd is not installed";
  }
  // A server and the node that leads to it.
  void begin(const SlapdOptions& options = {}) {
    slapd = std::make_unique<Slapd>(options);
    configure(slapd->entry(folder.path()));
  }
  void configure(const PlistValue& entry) {
    if (session != 0) dsCloseDirService(session);
    writeDirectoryConfiguration(
        folder.path(), PlistValue::dictionaryOf({{"HostNode", false}, {"Nodes", PlistValue::arrayOf({entry})}}));
    ASSERT_EQ(dsOpenDirService(&session), 0);
    ASSERT_EQ(openNode("/LDAP/example", node), 0);
  }
  // An entry for servers that need not be slapd, with short times.
  static PlistValue impatientEntry(const PlistValue& urls) {
    return PlistValue::mutableDictionaryOf({{"Kind", "LDAP"},
                                            {"Path", "/LDAP/example"},
                                            {"Servers", urls},
                                            {"Base", Slapd::base},
                                            {"ConnectTimeout", 0.4},
                                            {"AnswerTimeout", 0.4}});
  }
  std::vector<FoundRecord> allUsers() {
    return search(node, {usersType}, nameAttribute, directoryMatch::any, {""}, {"dsAttributesAll"});
  }
  DirectoryStatus listingStatus() {
    allUsers();
    return status;
  }
  DirectoryStatus signIn(DirectoryHandle to, const std::string& user, const std::string& password,
                         bool verifyOnly = false) {
    return dsDoDirNodeAuth(to, dataNode(directoryName::clearTextMethod).get(), verifyOnly,
                           credentials(user, password).get(), nullptr, nullptr);
  }
  static DirectoryItem<DirectoryDataBuffer> credentials(const std::string& user, const std::string& password) {
    auto buffer = dataBuffer(4096);
    std::string bytes;
    for (const std::string& text : {user, password}) {
      const auto length = static_cast<std::uint32_t>(text.size());
      bytes.append(reinterpret_cast<const char*>(&length), sizeof length).append(text);
    }
    std::copy(bytes.begin(), bytes.end(), buffer->bytes());
    buffer->length = static_cast<std::uint32_t>(bytes.size());
    return buffer;
  }

  std::unique_ptr<Slapd> slapd;
};

TEST_F(LdapNode, ShowsUsersAndGroupsByTheirAttributesHere) {
  begin();
  const auto all = [this](const char* type, const std::string& name) {
    const auto found = search(node, {type}, nameAttribute, directoryMatch::exact, {name}, {"dsAttributesAll"});
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? Attributes() : found.front().attributes;
  };
  EXPECT_EQ(allUsers().size(), 20U);
  EXPECT_EQ(all(usersType, "user00019"), (Attributes{{nameAttribute, {"user00019"}},
                                                     {idAttribute, {"1019"}},
                                                     {"dsAttrTypeStandard:PrimaryGroupID", {"119"}},
                                                     {realName, {"Ada Surname 19"}},
                                                     {"dsAttrTypeStandard:NFSHomeDirectory", {"/home/user00019"}},
                                                     {"dsAttrTypeNative:home", {"/home/user00019"}},
                                                     {"dsAttrTypeStandard:UserShell", {"/bin/bash"}},
                                                     {passwordAttribute, {"********"}},
                                                     {"dsAttrTypeStandard:GeneratedUID", {Slapd::userIdentifier(19)}},
                                                     {"dsAttrTypeStandard:LastName", {"Surname"}},
                                                     {"dsAttrTypeStandard:EMailAddress", {"user00019@example.org"}}}));
  const Attributes group = all(groupsType, "group001");
  ASSERT_EQ(group.size(), 7U);
  EXPECT_EQ(group[4], (Attributes::value_type{"dsAttrTypeStandard:Member",
                                              {"user00007", "user00008", "user00009", "user00010"}}));
  EXPECT_EQ(group[6].second, (std::vector<std::string>{Slapd::userIdentifier(7), Slapd::userIdentifier(8),
                                                       Slapd::userIdentifier(9), Slapd::userIdentifier(10)}));
  // Passwords have other names on the server, and none of them shows one.
  const auto hidden = search(node, {usersType}, nameAttribute, directoryMatch::exact, {"user00019"},
                             {"dsAttrTypeNative:userPassword", "dsAttrTypeNative:2.5.4.35",
                              "dsAttrTypeNative:userPassword;x", "dsAttrTypeNative:objectClass"});
  ASSERT_EQ(hidden.size(), 1U);
  EXPECT_EQ(hidden[0].attributes, (Attributes{{"dsAttrTypeNative:userPassword", {"********"}}}));
  EXPECT_THAT(namesOf(passwordAttribute, directoryMatch::contains, ""), ElementsAre());
}

// Servers compare in their own way; what is found must be what comparing value by value finds.
TEST_F(LdapNode, FindsWhatComparingFinds) {
  begin();
  const std::vector<std::string> odd = {
      "O'Hara",           "a*b",  "(x)",   "a\\b", "Élan", "ad", "Ada", "two  blanks", "über", "#1",
      "a,b+c=d;<e>\"f\"", "1000", "日本語"};
  for (const std::string& name : odd) makeUser(name, {{realName, name + " Name"}});
  const auto records =
      search(node, {usersType, groupsType}, nameAttribute, directoryMatch::any, {""}, {"dsAttributesAll"});
  ASSERT_EQ(records.size(), 20U + odd.size() + 5U);
  std::vector<std::string> patterns = odd;
  for (const char* more : {"",
                           "*",
                           "ad",
                           "AD",
                           "r0001",
                           "USER00001",
                           "user00001",
                           "1001",
                           "100",
                           "-1",
                           "1e3",
                           "o'",
                           "é",
                           "É",
                           " ",
                           "name",
                           "/home",
                           "/HOME/USER00002",
                           "/bin/bash",
                           "BASH",
                           "3F2504E0",
                           ")(uid=*",
                           "user00008",
                           "65534",
                           "/nonexistent",
                           "99999999999999999999"})
    patterns.emplace_back(more);
  patterns.push_back(Slapd::userIdentifier(3));
  patterns.push_back("3f2504e0-4f89-41d3-9a0c-030500000003");
  patterns.push_back(std::string(65535, 'q'));
  using namespace directoryMatch;
  for (const char* attribute :
       {nameAttribute, idAttribute, realName, "dsAttrTypeNative:home", "dsAttrTypeStandard:UserShell",
        "dsAttrTypeStandard:GeneratedUID", "dsAttrTypeStandard:Member", groupMembers, "dsAttrTypeNative:o"})
    for (const std::uint32_t match : {exact, contains, lessThan, greaterThan, exactIgnoringCase, startsWithIgnoringCase,
                                      endsWithIgnoringCase, containsIgnoringCase})
      for (const std::string& pattern : patterns) {
        std::multiset<std::string> expected;
        for (const FoundRecord& record : records)
          for (const std::string& value : record.values(attribute))
            if (directoryValueMatches(match, pattern, value)) {
              expected.insert(record.name);
              break;
            }
        std::multiset<std::string> found;
        for (const FoundRecord& record : search(node, {usersType, groupsType}, attribute, match, {pattern}))
          found.insert(record.name);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(found, expected) << attribute << " " << match << " '" << pattern.substr(0, 40) << "'";
      }
}

TEST_F(LdapNode, FindsAnyOfManyValuesOnce) {
  begin({.users = 700, .groups = 0});
  std::vector<std::string> patterns;
  for (int number = 699; number >= 0; --number) {
    patterns.push_back(Slapd::userName(number));
    patterns.push_back("nobody" + std::to_string(number));
    patterns.push_back(Slapd::userName(number));
  }
  EXPECT_EQ(search(node, {usersType}, nameAttribute, directoryMatch::exact, patterns, {nameAttribute}, 4096).size(),
            700U);
  EXPECT_EQ(status, 0);
}

// Entries cannot be without some attributes; records are.
TEST_F(LdapNode, NewRecordsHaveTheirNameOnlyUntilMoreIsSet) {
  begin();
  makeUser("ada");
  DirectoryHandle record = 0;
  ASSERT_EQ(open(usersType, "ADA", record), 0);
  std::string value;
  for (const char* attribute : {idAttribute, realName, "dsAttrTypeNative:home"})
    EXPECT_EQ(valueAt(record, attribute, 1, value), directoryStatus::noSuchValue) << attribute;
  EXPECT_EQ(add(record, idAttribute, "77"), 0);
  EXPECT_EQ(add(record, idAttribute, "78"), directoryStatus::invalidValue) << "it has one value";
  EXPECT_EQ(add(record, idAttribute, "x"), directoryStatus::invalidValue);
  EXPECT_EQ(add(record, realName, "Ada L"), 0);
  EXPECT_EQ(add(record, "dsAttrTypeStandard:NestedGroups", "x"), directoryStatus::notSupported);
  EXPECT_EQ(add(record, "dsAttrTypeNative:objectClass", "top"), directoryStatus::notSupported);
  EXPECT_THAT(namesOf(idAttribute, directoryMatch::lessThan, "78"), ElementsAre("ada"));
  EXPECT_EQ(dsRemoveAttribute(record, dataNode(idAttribute).get()), 0);
  EXPECT_EQ(valueAt(record, idAttribute, 1, value), directoryStatus::noSuchValue);
  EXPECT_EQ(valueAt(record, realName, 1, value), 0);
  EXPECT_EQ(value, "Ada L");
  EXPECT_EQ(dsDeleteRecord(record), 0);
  EXPECT_EQ(valueAt(record, nameAttribute, 1, value), directoryStatus::recordNotFound);
  makeUser("ada");  // another one in its place
  EXPECT_EQ(valueAt(record, nameAttribute, 1, value), directoryStatus::recordNotFound);
}

TEST_F(LdapNode, RenamesRecordsAndKeepsThemOpen) {
  begin();
  makeUser("ada");
  DirectoryHandle record = 0;
  DirectoryHandle other = 0;
  ASSERT_EQ(open(usersType, "ada", record), 0);
  ASSERT_EQ(open(usersType, "ada", other), 0);
  EXPECT_EQ(add(record, nameAttribute, "countess"), 0);
  EXPECT_EQ(add(record, nameAttribute, "USER00001"), directoryStatus::recordExists);
  std::string value;
  std::uint32_t identifier = 0;
  ASSERT_EQ(valueAt(record, nameAttribute, 1, value, &identifier), 0);
  EXPECT_EQ(value, "ada");
  const DirectoryItem<DirectoryAttributeValueEntry> renamed(dsAllocAttributeValueEntry(identifier, "a,d+a", 5));
  EXPECT_EQ(dsSetAttributeValue(record, dataNode(nameAttribute).get(), renamed.get()), 0);
  EXPECT_EQ(add(other, idAttribute, "77"), 0) << "found again by its identifier";
  ASSERT_EQ(valueAt(other, nameAttribute, 1, value, &identifier), 0);
  EXPECT_EQ(value, "a,d+a");
  EXPECT_EQ(dsRemoveAttributeValue(other, dataNode(nameAttribute).get(), identifier), 0);
  EXPECT_THAT(namesOf(idAttribute, directoryMatch::exact, "77"), ElementsAre("countess"));
  EXPECT_EQ(dsRemoveAttribute(record, dataNode(nameAttribute).get()), directoryStatus::invalidValue);
}

TEST_F(LdapNode, TurnsMembersIntoIdentifiersAndBack) {
  begin({.users = 300, .groups = 1});
  makeRecord(groupsType, "all");
  DirectoryHandle record = 0;
  ASSERT_EQ(open(groupsType, "all", record), 0);
  std::vector<std::string> identifiers;
  for (int number = 0; number < 250; ++number) identifiers.push_back(Slapd::userIdentifier(number));
  EXPECT_EQ(dsSetAttributeValues(record, dataNode(groupMembers).get(), dataList(identifiers).get()), 0);
  std::string value;
  EXPECT_EQ(valueAt(record, "dsAttrTypeStandard:GroupMembership", 250, value), 0);
  EXPECT_EQ(value, "user00249");
  EXPECT_EQ(add(record, "dsAttrTypeStandard:Member", "nobody-here"), 0);
  EXPECT_EQ(add(record, groupMembers, Slapd::userIdentifier(999)), directoryStatus::invalidValue);
  const auto found = search(node, {groupsType}, groupMembers, directoryMatch::exact, {identifiers[7]}, {groupMembers});
  const auto all = std::ranges::find(found, "all", &FoundRecord::name);
  ASSERT_NE(all, found.end());
  EXPECT_EQ(all->values(groupMembers), identifiers);
}

TEST_F(LdapNode, ChangesWithTheRightsOfWhoSignedIn) {
  begin();
  PlistValue entry = slapd->entry(folder.path());
  entry.remove("BindDN");
  entry.remove("BindPasswordFile");
  configure(entry);
  DirectoryHandle record = 0;
  EXPECT_EQ(create(usersType, "ada", record), directoryStatus::permissionDenied);
  EXPECT_EQ(signIn(node, "user00000", "wrong"), directoryStatus::passwordRefused);
  EXPECT_EQ(signIn(node, "user00000", ""), directoryStatus::passwordRefused) << "that would bind as nobody";
  EXPECT_EQ(signIn(node, "user00000", std::string("secret00000\0", 12)), directoryStatus::passwordRefused);
  EXPECT_EQ(signIn(node, "nobody", "secret00000"), directoryStatus::userUnknown);
  EXPECT_EQ(signIn(node, "*", "secret00000"), directoryStatus::userUnknown);
  EXPECT_EQ(signIn(node, "user00000", "secret00000", true), 0);
  EXPECT_EQ(create(usersType, "ada", record), directoryStatus::permissionDenied) << "that was a check only";
  EXPECT_EQ(signIn(node, "USER00000", "secret00000"), 0);
  EXPECT_EQ(create(usersType, "ada", record), 0);
  EXPECT_EQ(add(record, passwordAttribute, ""), directoryStatus::invalidValue);
  EXPECT_EQ(add(record, passwordAttribute, "first"), 0);
  slapd->stop();
  slapd->start();
  EXPECT_EQ(dsRemoveAttribute(record, dataNode(passwordAttribute).get()), 0) << "bound again";
  EXPECT_EQ(add(record, passwordAttribute, "second"), 0);
  EXPECT_EQ(signIn(node, "ada", "first"), directoryStatus::passwordRefused);
  EXPECT_EQ(signIn(node, "ada", "second"), 0);
  EXPECT_EQ(create(usersType, "bob", record), directoryStatus::permissionDenied);
}

TEST_F(LdapNode, GoesOnWhereItWasWhenTheServerRestarts) {
  begin({.users = 1500, .groups = 0});
  const auto buffer = dataBuffer(8192);
  DirectoryHandle continuation = 0;
  std::multiset<std::string> names;
  int steps = 0;
  do {
    std::uint32_t count = 0;
    ASSERT_EQ(dsGetRecordList(node, buffer.get(), dataList({"dsRecordsAll"}).get(), directoryMatch::any,
                              dataList({usersType}).get(), dataList({nameAttribute}).get(), &count, &continuation),
              0);
    for (const FoundRecord& record : readAll(node, *buffer, count)) names.insert(record.name);
    if (++steps != 3) continue;
    slapd->stop();
    slapd->start();
  } while (continuation != 0);
  EXPECT_GT(steps, 5);
  EXPECT_EQ(names.size(), 1500U) << "none is lost and none comes twice";
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 1500U);

  slapd->stop();
  EXPECT_EQ(listingStatus(), directoryStatus::unreachable);
  DirectoryHandle everywhere = 0;
  ASSERT_EQ(openNode("/Search", everywhere), 0);
  search(everywhere, {usersType}, nameAttribute, directoryMatch::any, {""});
  EXPECT_EQ(status, 0) << "passed over";
  EXPECT_EQ(signIn(everywhere, "user00001", "secret00001"), directoryStatus::unreachable);
  slapd->start();
  EXPECT_EQ(signIn(everywhere, "user00001", "secret00001"), 0);
  makeUser("ada");
}

TEST_F(LdapNode, ManySearchesShareFewConnections) {
  begin({.users = 1200, .groups = 0});
  PlistValue entry = slapd->entry(folder.path());
  entry.set("Connections", 2);
  entry.set("PageSize", 50);
  configure(entry);
  std::vector<std::jthread> threads;
  std::vector<std::size_t> found(6);
  std::vector<DirectoryStatus> statuses(6, -1);
  for (std::size_t at = 0; at < found.size(); ++at)
    threads.emplace_back([this, at, &found, &statuses] {
      // Small buffers, so that each search rests often, and others take its connection.
      const auto buffer = dataBuffer(16384);
      DirectoryHandle continuation = 0;
      do {
        std::uint32_t count = 0;
        statuses[at] =
            dsGetRecordList(node, buffer.get(), dataList({"dsRecordsAll"}).get(), directoryMatch::any,
                            dataList({usersType}).get(), dataList({nameAttribute}).get(), &count, &continuation);
        found[at] += count;
      } while (statuses[at] == 0 && continuation != 0);
    });
  threads.clear();
  EXPECT_EQ(statuses, std::vector<DirectoryStatus>(6, 0));
  EXPECT_EQ(found, std::vector<std::size_t>(6, 1200));
}

TEST_F(LdapNode, TellsWhenTheServerAnswersOnlyPartly) {
  begin({.users = 40, .groups = 0, .sizeLimit = 10});
  PlistValue entry = slapd->entry(folder.path());
  entry.remove("BindDN");
  entry.remove("BindPasswordFile");
  configure(entry);
  EXPECT_EQ(listingStatus(), directoryStatus::limitExceeded);
}

TEST_F(LdapNode, TrustsNoServerThatCannotShowWhoItIs) {
  const TestCertificate trusted("IP:127.0.0.1");
  const TestCertificate elsewhere("DNS:ldap.example.org");
  const TestCertificate expired("IP:127.0.0.1", TestCertificate::Validity::expired);
  const TestCertificate stranger("IP:127.0.0.1");
  writeFile(folder / "etc/ca.pem", trusted.pem() + elsewhere.pem() + expired.pem());
  struct Case {
    const TestCertificate* certificate;
    DirectoryStatus status;
  };
  for (const auto& [certificate, expected] :
       {Case{&trusted, 0}, Case{&elsewhere, directoryStatus::unreachable}, Case{&expired, directoryStatus::unreachable},
        Case{&stranger, directoryStatus::unreachable}, Case{nullptr, directoryStatus::unreachable}}) {
    slapd = std::make_unique<Slapd>(SlapdOptions{.users = 3, .certificate = certificate});
    PlistValue entry = slapd->entry(folder.path());
    entry.set("CAFile", "/etc/ca.pem");
    entry.set("RequireTLS", true);
    configure(entry);
    EXPECT_EQ(listingStatus(), expected);
    EXPECT_EQ(signIn(node, "user00001", "secret00001"), expected);
    if (certificate == nullptr) continue;
    entry.set("Servers", PlistValue::arrayOf({slapd->encryptedUrl()}));
    configure(entry);
    EXPECT_EQ(listingStatus(), expected);
    // Another host's directory: what this host trusts is below its root.
    writeFile(folder / "etc/ssl/certs/ca-certificates.crt", trusted.pem());
    DirectoryHandle proxy = 0;
    EXPECT_EQ(dsOpenDirServiceProxy(&proxy, "127.0.0.1", slapd->port(), dataNode(directoryName::clearTextMethod).get(),
                                    credentials("user00001", "secret00001").get(), nullptr, nullptr),
              expected);
    dsCloseDirService(proxy);
  }
}

TEST_F(LdapNode, AsksServersInTurn) {
  slapd = std::make_unique<Slapd>();
  LoopbackListener silent;
  LoopbackListener closed;
  const std::string closedUrl = "ldap://127.0.0.1:" + std::to_string(closed.port());
  closed.close();
  configure(impatientEntry(
      PlistValue::arrayOf({closedUrl, "ldap://127.0.0.1:" + std::to_string(silent.port()), slapd->url()})));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(listingStatus(), 0) << "the second one took the connection and never answered";
  EXPECT_EQ(signIn(node, "user00001", "secret00001"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
}

TEST_F(LdapNode, WaitsForSilentServersForItsTimeOnly) {
  LoopbackListener silent;
  const std::string place = "127.0.0.1:" + std::to_string(silent.port());
  for (const auto& [url, requireTLS] :
       {std::pair{"ldap://" + place, false}, {"ldap://" + place, true}, {"ldaps://" + place, true}}) {
    PlistValue entry = impatientEntry(PlistValue::arrayOf({url}));
    entry.set("RequireTLS", requireTLS);
    configure(entry);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(listingStatus(), directoryStatus::unreachable) << url << requireTLS;
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10)) << url << requireTLS;
  }
  slapd = std::make_unique<Slapd>(SlapdOptions{.users = 5});
  configure(impatientEntry(PlistValue::arrayOf({slapd->url()})));
  EXPECT_EQ(listingStatus(), 0);
  slapd->freeze();
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(listingStatus(), directoryStatus::unreachable);
  EXPECT_EQ(signIn(node, "user00001", "secret00001"), directoryStatus::unreachable);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(15));
  slapd->thaw();
}

// What a server sends may be anything, and end anywhere.
TEST_F(LdapNode, SurvivesAnswersThatMakeNoSense) {
  const auto message = [](const std::string& operation) {  // numbered 1, as the first request is
    return std::string("\x30", 1) + static_cast<char>(operation.size() + 3) + std::string("\x02\x01\x01", 3) +
           operation;
  };
  const std::string done = message(std::string("\x65\x07\x0a\x01\x00\x04\x00\x04\x00", 9));
  const std::string endless("\x30\x84\x7f\xff\xff\xff", 6);
  const auto entryOf = [&](const std::string& attributes) {
    const std::string body = std::string("\x04\x05uid=a\x30", 8) + static_cast<char>(attributes.size()) + attributes;
    return message("\x64" + std::string(1, static_cast<char>(body.size())) + body);
  };
  const std::string nameless =
      entryOf(std::string("\x30\x06\x04\x02"
                          "cn\x31\x00",
                          8));
  const std::string broken = entryOf(std::string("\x30\x7f\x04\x03uid\x31\x04\x04\x02", 11));
  const std::string named =
      entryOf(std::string("\x30\x0c\x04\x03uid\x31\x05\x04\x03"
                          "a\0b",
                          14));
  const std::map<std::string, std::size_t> answers = {
      // and how many records they hold
      {"", 0},
      {std::string(4096, '\0'), 0},
      {std::string(4096, '\xff'), 0},
      {endless, 0},
      {done, 0},
      {nameless + done, 0},
      {broken + done, 0},
      {named + done, 1},
      {named, 0},
      {done.substr(0, done.size() - 2), 0},
      {"HTTP/1.1 400 Bad Request\r\n\r\n", 0},
      {message(std::string("\x65\x07\x0a\x01\x4f\x04\x00\x04\x00", 9)), 0}};
  for (const auto& [answer, records] : answers) {
    LoopbackListener listener;
    std::jthread server([&listener, &bytes = answer](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        const FileDescriptor client = listener.accept();
        char request[4096];
        if (!client || receiveSome(client.get(), request, sizeof request) <= 0) continue;
        sendSome(client.get(), bytes.data(), bytes.size());
        const timeval limit{0, 600000};
        setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        receiveSome(client.get(), request, sizeof request);  // until it is left
      }
    });
    configure(impatientEntry(PlistValue::arrayOf({"ldap://127.0.0.1:" + std::to_string(listener.port())})));
    const std::size_t found = allUsers().size();
    EXPECT_EQ(found, records) << ::testing::PrintToString(answer);
    if (records == 0 && answer != done && answer != nameless + done) {
      EXPECT_NE(status, 0) << ::testing::PrintToString(answer);
    }
    dsCloseDirService(session);
    session = 0;
    server.request_stop();
    connectSocket(openStreamSocket(AF_INET).get(), listener.address());  // wakes it up
  }
}

TEST_F(LdapNode, RefusesEntriesThatMakeNoSense) {
  writeFile(folder / "open.password", "secret\n");
  const PlistValue usable = impatientEntry(PlistValue::arrayOf({"ldap://127.0.0.1:1"}));
  configure(usable);
  dsCloseDirService(session);
  const std::vector<std::pair<std::string, PlistValue>> faults = {
      {"Servers", "ldap://a"},
      {"Servers", PlistValue::arrayOf({})},
      {"Servers", PlistValue::arrayOf({"http://a"})},
      {"Servers", PlistValue::arrayOf({"ldap://"})},
      {"Servers", PlistValue::arrayOf({"ldap://a:0"})},
      {"Servers", PlistValue::arrayOf({"ldap://a:70000"})},
      {"Servers", PlistValue::arrayOf({"ldap://a/dc=x"})},
      {"Servers", PlistValue::arrayOf({"ldap://[::1"})},
      {"Servers", PlistValue::arrayOf({"ldap://a b"})},
      {"RequireTls", true},
      {"RequireTLS", "yes"},
      {"BindDN", "cn=admin"},
      {"BindPasswordFile", "/open.password"},
      {"AnswerTimeout", 0},
      {"PageSize", -1},
      {"Base", ""},
      {"Attributes", PlistValue::dictionaryOf({{"Users", PlistValue::dictionaryOf({{"a", "userPassword;binary"}})}})}};
  for (const auto& [key, value] : faults) {
    PlistValue entry = usable.mutableCopy();
    entry.set(key, value);
    if (key == "BindPasswordFile") entry.set("BindDN", "cn=admin");
    writeDirectoryConfiguration(folder.path(), PlistValue::dictionaryOf({{"Nodes", PlistValue::arrayOf({entry})}}));
    EXPECT_EQ(dsOpenDirService(&session), directoryStatus::configurationFault) << key << " " << value.description();
  }
}

}  // namespace
