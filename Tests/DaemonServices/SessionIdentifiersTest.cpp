#include "DaemonServices/SessionIdentifiers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/HostRoot.h"
#include "Platform/ModuleBundle.h"
#include "Platform/NameResolver.h"
#include "Platform/RandomDevice.h"
#include "Platform/UserDatabase.h"
#include "PluginFramework/PluginRequestHandler.h"
#include "Support/FakeNetwork.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::RecordingLog;
using testing::writeFile;

class SessionIdentifiers : public ::testing::Test {
 protected:
  std::string proxied(const std::string& name) const { return root_ / ("var/ostreld/proxied_sessions/" + name); }
  static std::string line(const std::string& rest) { return "[" + std::to_string(getpid()) + "] " + rest; }
  static mode_t modeOf(const std::string& path) { return fileStatus(path).value_or(FileStatus{}).mode & 07777U; }

  const testing::TemporaryFolder root_;
  const ScopedHostRoot hostRoot_{root_.path()};
  RecordingLog log_;
  const ScopedOverride<SystemLog> logOverride_{log_};
};

// minting

class FakeRandomDevice final : public RandomDevice {
 public:
  explicit FakeRandomDevice(std::string path) : path_(std::move(path)) {}
  FileDescriptor open() override { return openFile(path_, O_RDONLY); }

 private:
  const std::string path_;
};

TEST_F(SessionIdentifiers, MintsAnIdentifierAndLeavesItsMarker) {
  EXPECT_TRUE(generate_unprivileged_session_id().isNull()) << "no folder for the marker";
  std::filesystem::create_directories(root_ / "var/ostreld/sessions");
  const PlistValue first = generate_unprivileged_session_id();
  const PlistValue second = generate_unprivileged_session_id("web");
  EXPECT_NE(first, second);
  for (const PlistValue& identifier : {first, second}) {
    const std::string_view text = identifier.stringValue();
    ASSERT_TRUE(text.starts_with("nobody@"));
    EXPECT_EQ(text.size(), 7U + 32U);
    EXPECT_TRUE(std::ranges::all_of(text.substr(7), [](unsigned char c) { return c < 128 && std::isalnum(c) != 0; }));
  }
  const std::string marker = root_ / "var/ostreld/sessions/" + std::string(first.stringValue());
  EXPECT_EQ(readFile(marker), "");
  EXPECT_EQ(modeOf(marker), 0600U);
  EXPECT_TRUE(std::filesystem::exists(root_ / "var/ostreld/sessions/" + std::string(second.stringValue()) + ".web"));
  for (const PlistValue& extension :
       {PlistValue("a/b"), PlistValue("../x"), PlistValue(std::string("a\0b", 3)), PlistValue(1)})
    EXPECT_TRUE(generate_unprivileged_session_id(extension).isNull()) << extension.description();
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root_ / "var/ostreld/sessions"), {}), 2);
}

TEST_F(SessionIdentifiers, TakesLettersAndDigitsFromTheDeviceAndNothingElse) {
  std::filesystem::create_directories(root_ / "var/ostreld/sessions");
  const auto mintFrom = [&](const std::string& bytes) {
    writeFile(root_ / "random", bytes);
    FakeRandomDevice device(root_ / "random");
    const ScopedOverride<RandomDevice> override(device);
    return generate_unprivileged_session_id();
  };
  const std::string wanted = "azAZ09bcdefghijklmnopqrstuvwxyBC";
  EXPECT_EQ(mintFrom("/:@[`{\xE4\xFF \n" + wanted + "more"), PlistValue("nobody@" + wanted));
  EXPECT_TRUE(mintFrom(wanted.substr(1)).isNull()) << "the device ends early";
  std::filesystem::remove(root_ / "random");
  FakeRandomDevice missing(root_ / "random");
  const ScopedOverride<RandomDevice> override(missing);
  EXPECT_TRUE(generate_unprivileged_session_id().isNull());
}

// storing

TEST_F(SessionIdentifiers, SavesRestoresAndRevokes) {
  EXPECT_TRUE(save_session_id("alice@1", "caf\xC3\xA9"));
  EXPECT_TRUE(save_session_id("alice@1", "other", "web"));
  EXPECT_EQ(modeOf(proxied("")), 0700U);
  EXPECT_EQ(modeOf(proxied("alice@1")), 0600U);
  EXPECT_EQ(readFile(proxied("alice@1.web")), "other");
  EXPECT_EQ(restore_session_id("alice@1"), PlistValue("caf\xC3\xA9"));
  EXPECT_EQ(restore_session_id("alice@1", "web"), PlistValue("other"));
  EXPECT_TRUE(restore_session_id("alice@1", "none").isNull());

  chmod(proxied("alice@1").c_str(), 0644);
  EXPECT_TRUE(save_session_id("alice@1", "again"));
  EXPECT_EQ(modeOf(proxied("alice@1")), 0600U);

  EXPECT_TRUE(revoke_session_id("alice@1"));
  EXPECT_FALSE(revoke_session_id("alice@1"));
  EXPECT_TRUE(restore_session_id("alice@1").isNull());
  EXPECT_TRUE(revoke_session_id("alice@1", "web"));
  writeFile(proxied("alice@1"), "\xFF");
  EXPECT_TRUE(restore_session_id("alice@1").isNull());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SessionIdentifiers, StaleFilesAreLeftInPlace) {
  writeFile(proxied("old@1"), "old");
  std::filesystem::last_write_time(proxied("old@1"),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(48));
  EXPECT_TRUE(save_session_id("new@1", "new"));
  EXPECT_EQ(readFile(proxied("old@1")), "old");
}

TEST_F(SessionIdentifiers, NamesThatNameNothingAreRefused) {
  ASSERT_TRUE(save_session_id("alice@1", "text"));
  writeFile(root_ / "var/ostreld/secret", "secret");
  const PlistValue names[] = {"../secret", "/etc/passwd", "a/b", ".", "..", "", {}, 7, std::string("alice@1\0x", 9)};
  for (const PlistValue& name : names) {
    EXPECT_FALSE(save_session_id(name, "x")) << name.description();
    EXPECT_FALSE(revoke_session_id(name)) << name.description();
    EXPECT_TRUE(restore_session_id(name).isNull()) << name.description();
  }
  for (const PlistValue& extension : {PlistValue("/../../secret"), PlistValue(7), PlistValue(std::string("\0", 1))}) {
    EXPECT_FALSE(save_session_id("alice@1", "x", extension));
    EXPECT_FALSE(revoke_session_id("alice@1", extension));
    EXPECT_TRUE(restore_session_id("alice@1", extension).isNull());
  }
  EXPECT_EQ(readFile(root_ / "var/ostreld/secret"), "secret");
  EXPECT_TRUE(log_.holds(line("error in save_session_id: can't create " + proxied("a/b") + " (errno=22)\n")));
}

TEST_F(SessionIdentifiers, LinksAreNotFollowedOutOfTheFolder) {
  writeFile(root_ / "outside", "outside");
  ASSERT_TRUE(save_session_id("alice@1", "text"));
  std::filesystem::create_symlink(root_ / "outside", proxied("bob@1"));
  EXPECT_FALSE(save_session_id("bob@1", "overwritten"));
  EXPECT_TRUE(log_.holds(line("error in save_session_id: can't create " + proxied("bob@1") + " (errno=40)\n")));
  EXPECT_TRUE(restore_session_id("bob@1").isNull());
  EXPECT_TRUE(revoke_session_id("bob@1"));
  EXPECT_EQ(readFile(root_ / "outside"), "outside");
  ASSERT_EQ(mkfifo(proxied("pipe@1").c_str(), 0600), 0);
  EXPECT_TRUE(restore_session_id("pipe@1").isNull()) << "and does not wait for a writer";
}

TEST_F(SessionIdentifiers, FilesTooLargeToBeHeldCountAsMissing) {
  constexpr std::size_t largest = 16 << 20;
  ASSERT_TRUE(save_session_id("most@1", std::string(largest, 'x')));
  EXPECT_EQ(restore_session_id("most@1").stringValue().size(), largest);
  EXPECT_FALSE(save_session_id("most@1", std::string(largest + 1, 'x')));
  EXPECT_EQ(restore_session_id("most@1").stringValue().size(), largest);

  // Sparse, and larger than any memory.
  const std::string preferences = root_ / "Library/Preferences/com.brantle.ostrel_info.plist";
  for (const std::string& path : {proxied("huge@1"), preferences}) {
    writeFile(path, "1");
    ASSERT_EQ(truncate(path.c_str(), off_t{8} << 40), 0);
  }
  EXPECT_TRUE(restore_session_id("huge@1").isNull());
  EXPECT_TRUE(get_service_config().isNull());
  EXPECT_EQ(pid_from_file(proxied("huge@1")), -1);
}

TEST_F(SessionIdentifiers, SaveMultipleAttemptsAll) {
  EXPECT_FALSE(save_session_id_multiple(PlistValue::arrayOf({"a@1", "b/1", "c@1"}), "text", "web"));
  EXPECT_EQ(readFile(proxied("a@1.web")), "text");
  EXPECT_EQ(readFile(proxied("c@1.web")), "text");
  EXPECT_TRUE(save_session_id_multiple(PlistValue::arrayOf({"a@1", "c@1"}), "text"));
  EXPECT_FALSE(save_session_id("a@1", 5)) << "contents are text";
}

TEST_F(SessionIdentifiers, FolderThatCannotBeMadeIsLogged) {
  writeFile(root_ / "var/ostreld", "a file in the way");
  EXPECT_FALSE(save_session_id("a@1", "text"));
  EXPECT_TRUE(log_.holds(line("error in save_session_id: cannot create " + proxied("") + " (errno=20)\n")));
}

// hosts, users, ports

TEST_F(SessionIdentifiers, SameHostByNameOrByAddress) {
  testing::FakeResolver resolver;
  resolver.hosts = {{"a", {"192.0.2.1"}}, {"alias", {"192.0.2.7", "192.0.2.1"}}, {"b", {"192.0.2.2"}}};
  resolver.raising = {"broken"};
  const ScopedOverride<NameResolver> override(resolver);
  EXPECT_TRUE(is_same_host("x", "x", false));
  EXPECT_TRUE(is_same_host("x", "x", true));
  EXPECT_FALSE(is_same_host("a", "alias", false));
  EXPECT_FALSE(is_same_host({}, {}, true));
  EXPECT_FALSE(is_same_host_multiple(PlistValue::arrayOf({}), "a", true));
  EXPECT_EQ(resolver.lookups, 0);
  EXPECT_TRUE(is_same_host("a", "alias", true));
  EXPECT_FALSE(is_same_host("a", "b", true));
  EXPECT_FALSE(is_same_host("a", "unknown", true));
  EXPECT_FALSE(is_same_host("a", "broken", true));
  EXPECT_FALSE(is_same_host_multiple(PlistValue::arrayOf({"b", "unknown"}), "a", true));
  resolver.lookups = 0;
  EXPECT_TRUE(is_same_host_multiple(PlistValue::arrayOf({"a", "broken"}), "a", true)) << "stops at the first match";
  EXPECT_EQ(resolver.lookups, 0);
}

class FakeUsers final : public UserDatabase {
 public:
  std::optional<UserEntry> userNamed(const std::string& name) override {
    return name == "alice" ? userWithId(501) : std::nullopt;
  }
  std::optional<UserEntry> userWithId(uid_t uid) override {
    UserEntry alice;
    alice.name = "alice";
    alice.uid = 501;
    alice.gid = 20;
    return uid == 501 ? std::optional(alice) : std::nullopt;
  }
  std::optional<GroupEntry> groupNamed(const std::string& name) override {
    const std::map<std::string, gid_t> groups{{"staff", 20}, {"admin", 80}, {"wheel", 0}};
    const auto found = groups.find(name);
    if (found == groups.end()) return std::nullopt;
    return GroupEntry{found->first, found->second, {}};
  }
  std::optional<GroupEntry> groupWithId(gid_t) override { return std::nullopt; }
  std::vector<gid_t> groupsOfUser(const std::string& name) override {
    return name == "alice" ? std::vector<gid_t>{20, 80} : std::vector<gid_t>{};
  }
};

TEST_F(SessionIdentifiers, GroupMembership) {
  FakeUsers users;
  const ScopedOverride<UserDatabase> override(users);
  EXPECT_TRUE(does_user_belong_to_group("alice", "staff"));
  EXPECT_TRUE(does_user_belong_to_group("alice", "admin"));
  EXPECT_FALSE(does_user_belong_to_group("alice", "wheel"));
  EXPECT_FALSE(does_user_belong_to_group("alice", "nosuch"));
  EXPECT_FALSE(does_user_belong_to_group("bob", "staff"));
  EXPECT_FALSE(does_user_belong_to_group({}, "staff"));
  EXPECT_FALSE(does_user_belong_to_group("alice", {}));
}

/// Answers "getPortRestrictionInfo" with `answer`, noting the request.
class FilterHandler : public PluginRequestHandler {
 public:
  FilterHandler() : PluginRequestHandler(operations()) {}
  PlistValue getPortRestrictionInfoWithRequest(const PlistValue& request) {
    asked = request;
    if (answer.isNull()) throw std::runtime_error("broken");
    return answer;
  }
  static inline PlistValue asked;
  static inline PlistValue answer;

 private:
  static const OperationTable& operations() {
    static const OperationTable table{
        {"getPortRestrictionInfoWithRequest:", &FilterHandler::getPortRestrictionInfoWithRequest}};
    return table;
  }
};

/// Holds one module, the filter.
class FilterLoader final : public ModuleLoader {
 public:
  std::shared_ptr<ModuleBundle> load(const std::string& path, std::string*) override {
    static constexpr ModuleInterface interface { moduleInterfaceVersion, &detail::createModuleInstance<FilterHandler> };
    if (!path.ends_with("/ostrel_ipfilter.bundle")) return nullptr;
    return std::make_shared<ModuleBundle>(path, &interface);
  }
};

TEST_F(SessionIdentifiers, AsksTheFilterModuleForItsPortRestrictions) {
  std::filesystem::create_directories(root_ / "private/var/ostreld");
  const PlistValue ports = PlistValue::arrayOf({25, 993});
  PlistValue restrictions = "unset";
  EXPECT_TRUE(check_if_ports_are_restricted(ports, &restrictions)) << "no such module answers with an error";
  EXPECT_TRUE(restrictions.isNull());

  FilterLoader loader;
  const ScopedOverride<ModuleLoader> override(loader);
  const std::pair<PlistValue, bool> cases[] = {{PlistValue::dictionaryOf({{"allOpen", true}}), false},
                                               {PlistValue::dictionaryOf({{"allOpen", false}}), true},
                                               {PlistValue::dictionaryOf({{"allOpen", 1}}), false},
                                               {PlistValue::dictionaryOf({{"other", true}}), true},
                                               {PlistValue(), true}};
  for (const auto& [answer, restricted] : cases) {
    FilterHandler::answer = answer;
    EXPECT_EQ(check_if_ports_are_restricted(ports), restricted) << answer.description();
    EXPECT_EQ(FilterHandler::asked,
              PlistValue::dictionaryOf({{"command", "getPortRestrictionInfo"}, {"ports", ports}}));
  }
  FilterHandler::asked = PlistValue();
  restrictions = "unset";
  EXPECT_FALSE(check_if_ports_are_restricted({}, &restrictions));
  EXPECT_TRUE(restrictions.isNull());
  EXPECT_TRUE(FilterHandler::asked.isNull()) << "null ports ask nobody";
}

// files

TEST_F(SessionIdentifiers, ServiceConfigurationFromThePreferences) {
  EXPECT_TRUE(get_service_config().isNull());
  const std::string path = root_ / "Library/Preferences/com.brantle.ostrel_info.plist";
  writeFile(path, "<plist version=\"1.0\"><dict><key>ServiceConfig</key><string>on</string></dict></plist>");
  EXPECT_EQ(get_service_config(), PlistValue("on"));
  writeFile(path, "<plist version=\"1.0\"><dict><key>Other</key><string>on</string></dict></plist>");
  EXPECT_TRUE(get_service_config().isNull());
  writeFile(path, "no property list");
  EXPECT_TRUE(get_service_config().isNull());
}

TEST_F(SessionIdentifiers, PidFromFile) {
  const std::string path = root_ / "daemon.pid";
  const std::pair<std::string, int> numbers[] = {
      {"  1234\n", 1234}, {"\r\n\t\v\f 7", 7},        {"+5", 5},   {"-5 x", -5}, {"42abc", 42}, {"12 34", 12},
      {"007\n", 7},       {"2147483647", 2147483647}, {"0x1F", 0}, {"12.5", 12}};
  for (const auto& [text, expected] : numbers) {
    writeFile(path, text);
    EXPECT_EQ(pid_from_file(path), expected) << text;
  }
  EXPECT_TRUE(log_.lines().empty());
  const std::string none[] = {"abc",
                              "",
                              " \n ",
                              "- 5",
                              "+-5",
                              "--5",
                              "2147483648",
                              "99999999999999999999",
                              "\xC2\xA0"
                              "5"};
  for (const std::string& text : none) {
    writeFile(path, text);
    EXPECT_EQ(pid_from_file(path), 0) << text;
  }
  EXPECT_EQ(log_.lines(), std::vector<std::string>(std::size(none), line("error in pid_from_file: file " + path +
                                                                         " doesn't contain a pid\n")));
  writeFile(path, "12\xFF");
  EXPECT_EQ(pid_from_file(path), -1);
  EXPECT_EQ(pid_from_file(root_ / "missing"), -1);
  EXPECT_EQ(pid_from_file(root_.path()), -1);
  ASSERT_EQ(mkfifo((root_ / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(pid_from_file(root_ / "pipe"), -1);
}

}  // namespace
}  // namespace ostrel
