// Users of a directory signing in to a real daemon, and what they may do there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <thread>

#include "Containers/Base64.h"
#include "Directory/DirectoryIdentifiers.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Platform/HostRoot.h"
#include "Tools/DaemonProcess.h"
#include "ostrelctl/LocalAdministrator.h"
#include "ostreld/DirectorySignIn.h"

namespace ostrel {
namespace {

using testing::DaemonProcess;
using testing::eventually;
using ::testing::HasSubstr;
using ::testing::Not;
using testing::Outcome;
using testing::runProgram;
using testing::TemporaryFolder;
using testing::writeFile;
using Transport = DaemonProcess::Transport;

constexpr const char* secret = "correct horse";

PlistValue command(const char* name) { return PlistValue::dictionaryOf({{"command", name}}); }

/// The local node below a daemon's root.
class Accounts {
 public:
  explicit Accounts(const DaemonProcess& daemon) : root_(daemon.root()) {
    EXPECT_EQ(DSOpenDirectoryServices({}, 0, {}, {}, &session_), 0);
    EXPECT_EQ(DSOpenNodeByPath(session_, "/Local", &node_), 0);
  }
  ~Accounts() {
    DSCloseNode(session_, &node_);
    DSCloseDirectoryServices(&session_);
  }
  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;

  void makeAdministrator(const std::string& name) const {
    std::string fault;
    EXPECT_TRUE(ostrel::makeAdministrator(name, "", secret, fault)) << fault;
  }
  void makeUser(const char* name, const std::string& password = secret) const {
    make("dsRecTypeStandard:Users", name);
    set("dsRecTypeStandard:Users", name, "dsAttrTypeStandard:Password", password);
  }
  void makeGroup(const char* name, const std::string& member) const {
    make("dsRecTypeStandard:Groups", name);
    set("dsRecTypeStandard:Groups", name, "dsAttrTypeStandard:Member", member);
  }
  void removeUser(const char* name) const {
    EXPECT_EQ(DSRemoveRecordByName(session_, node_, "dsRecTypeStandard:Users", name), 0);
  }
  void addName(const char* name, const char* alias) const {
    EXPECT_EQ(DSSetRecordAttributeValueByNameAndIndex(session_, node_, "dsRecTypeStandard:Users", name,
                                                      "dsAttrTypeStandard:RecordName", 2, alias),
              0);
  }

 private:
  void make(const char* type, const char* name) const {
    EXPECT_EQ(DSCreateRecordByName(session_, node_, type, name), 0);
    set(type, name, "dsAttrTypeStandard:GeneratedUID", std::string(DSGenerateUniqueIdentifier().stringValue()));
  }
  void set(const char* type, const char* name, const char* attribute, const std::string& value) const {
    EXPECT_EQ(DSSetRecordAttributeValueByName(session_, node_, type, name, attribute, value.c_str()), 0);
  }

  const ScopedHostRoot root_;
  DirectoryHandle session_ = 0;
  DirectoryHandle node_ = 0;
};

/// A client without any session, with a name and a password.
std::shared_ptr<OstrelDaemonSession> clientOf(const DaemonProcess& daemon, const std::string& user,
                                              const std::string& password = secret,
                                              const std::string& module = "ostrel_sample") {
  auto client = daemon.session(module);
  client->_setSessionID({});
  client->setUserName(user);
  client->setPassword(password);
  return client;
}

/// The reply, or how the request failed behind the URL.
std::string outcomeOf(OstrelDaemonSession& client, const PlistValue& request) {
  const PlistValue reply = client.sendSyncRequest(request);
  if (!client.failureReason())
    return reply.get("error").isNull() ? "ok" : std::string(reply.get("error").stringValue());
  return client.failureReason()->substr(client.failureReason()->rfind(": ") + 2);
}

std::string outcomeOf(const std::shared_ptr<OstrelDaemonSession>& client, const char* name = "getState") {
  return outcomeOf(*client, command(name));
}

std::string basic(const std::string& user, const std::string& password) {
  return "POST /commands/ostrel_sample HTTP/1.0\r\nAuthorization: Basic " + encodeBase64(user + ":" + password) +
         "\r\nContent-Length: 0\r\n\r\n";
}

DaemonProcess::Transport transport() { return testing::mayUseTlsPort() ? Transport::tls : Transport::plain; }

TEST(SignIn, APasswordBeginsASessionThatTheClientGoesOnWith) {
  DaemonProcess daemon(transport());
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  accounts.addName("ada", "Countess of Lovelace");
  ASSERT_TRUE(daemon.start({"--session-idle", "3", "--failed-sign-in-time", "0.1"})) << daemon.log();

  const auto client = clientOf(daemon, "ada");
  EXPECT_EQ(outcomeOf(client), "ok");
  const auto identifier = client->sessionID();
  ASSERT_TRUE(identifier && identifier->starts_with("ada@"));
  client->setPassword("is not looked at while the session lasts");
  EXPECT_EQ(outcomeOf(client), "ok");
  EXPECT_EQ(client->sessionID(), identifier);

  // By another of the record's names; and a body that comes after the check.
  const auto other = clientOf(daemon, "countess of lovelace");
  const std::string large(1 << 20, 'x');
  const PlistValue reply = other->sendSyncRequest(PlistValue::dictionaryOf({{"command", "echo"}, {"text", large}}));
  EXPECT_EQ(reply.get("echo").get("text").stringValue(), large);
  EXPECT_TRUE(other->sessionID()->starts_with("ada@"));
  EXPECT_EQ(daemon.session()->sendSyncRequest(command("getState")).get("state").stringValue(), "STOPPED");

  EXPECT_EQ(outcomeOf(clientOf(daemon, "ada", "wrong")), "authorization required");
  EXPECT_EQ(outcomeOf(clientOf(daemon, "ada", "")), "authorization required");
  EXPECT_EQ(outcomeOf(clientOf(daemon, "charles")), "authorization required");

  const auto leaving = clientOf(daemon, "ada", secret, "ostreld");
  EXPECT_EQ(outcomeOf(leaving, "logout"), "ok");
  leaving->setUserName({});
  EXPECT_EQ(outcomeOf(leaving, "getStatus"), "authorization required");
  EXPECT_TRUE(eventually([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(3100));
    client->setUserName({});
    return outcomeOf(client) == "authorization required";
  })) << "idle for too long";

  EXPECT_THAT(daemon.log(), Not(HasSubstr(secret)));
  EXPECT_THAT(daemon.log(), Not(HasSubstr(*identifier)));
  EXPECT_THAT(daemon.log(), HasSubstr("audit user=\"ada\" from=\""));
  EXPECT_THAT(daemon.log(), HasSubstr("command=\"-\" outcome=\"signed in\" ms="));
  EXPECT_THAT(daemon.log(), HasSubstr("outcome=\"refused 401 wrong name or password\" ms="));
}

TEST(SignIn, AnUnknownUserLooksLikeAWrongPassword) {
  DaemonProcess daemon(Transport::plain);
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  accounts.makeUser("two words");
  ASSERT_TRUE(daemon.start({"--failed-sign-in-time", "0.6"})) << daemon.log();
  const std::string heads[] = {basic("ada", "wrong password"), basic("charles", "wrong password"),
                               basic("root", "wrong password"), basic("two words", secret), basic("ada", "")};
  std::string first;
  for (const std::string& head : heads) {
    const auto begun = std::chrono::steady_clock::now();
    std::string reply = daemon.exchange(head);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
    EXPECT_GE(taken.count(), 0.6) << head;
    EXPECT_THAT(reply, HasSubstr(" 401 "));
    reply.erase(reply.find("Date: "), 37);
    if (first.empty()) first = reply;
    EXPECT_EQ(reply, first) << head;
  }
}

// What the answer's time hides would show in how long others wait for their turn.
TEST(SignIn, AnUnknownUserKeepsTheCheckBusyAsLong) {
  const DaemonProcess daemon(Transport::plain);
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  const auto work = [](const char* user) {
    timespec begun{};
    timespec ended{};
    DirectoryAccount account;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begun);
    EXPECT_NE(checkPassword(user, "wrong password", account), 0);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ended);
    return static_cast<double>(ended.tv_sec - begun.tv_sec) + 1e-9 * static_cast<double>(ended.tv_nsec - begun.tv_nsec);
  };
  work("ada");
  const double known = work("ada");
  for (const char* user : {"charles", "daemon"}) EXPECT_GT(work(user), known / 2) << user;
}

TEST(SignIn, TooManyFailuresOfAPeerHaveItWait) {
  DaemonProcess daemon(Transport::plain);
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  ASSERT_TRUE(daemon.start({"--max-failed-sign-ins", "4", "--failed-sign-in-time", "0.01"})) << daemon.log();
  for (int failure = 0; failure < 4; ++failure) {
    EXPECT_THAT(daemon.exchange(basic("ada", "guess")), HasSubstr(" 401 ")) << failure;
  }
  const std::string reply = daemon.exchange(basic("ada", secret));
  EXPECT_THAT(reply, HasSubstr(" 429 "));
  EXPECT_THAT(reply, HasSubstr("Retry-After: "));
  EXPECT_EQ(daemon.echo("sessions go on").stringValue(), "sessions go on");
  EXPECT_EQ(daemon.send(command("getState")).get("state").stringValue(), "STOPPED");

  // A failure that is made to wait holds up no stop.
  ASSERT_EQ(daemon.stop(), 0);
  ASSERT_TRUE(daemon.start({"--failed-sign-in-time", "10"})) << daemon.log();
  const auto waiting = daemon.connectRaw();
  waiting.write(basic("ada", "guess"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
}

TEST(SignIn, ManyAtOnceAreServedAndBounded) {
  DaemonProcess daemon(transport());
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  accounts.makeUser("bob");
  ASSERT_TRUE(daemon.start({"--max-sessions-per-user", "3", "--failed-sign-in-time", "0.1"})) << daemon.log();
  std::vector<std::shared_ptr<OstrelDaemonSession>> clients;
  std::vector<std::string> outcomes(12);
  for (int at = 0; at < 12; ++at) clients.push_back(clientOf(daemon, at % 4 == 3 ? "bob" : "ada", secret));
  std::vector<std::thread> threads;
  for (std::size_t at = 0; at < clients.size(); ++at) {
    threads.emplace_back([&, at] { outcomes[at] = outcomeOf(clients[at]); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t at = 0; at < outcomes.size(); ++at) EXPECT_EQ(outcomes[at], at % 4 == 3 ? "403" : "ok") << at;
  int lasting = 0;
  for (const auto& client : clients) {
    client->setUserName({});
    const std::string outcome = outcomeOf(client);
    if (outcome == "ok" || outcome == "403") ++lasting;
  }
  EXPECT_LE(lasting, 6);
  EXPECT_GE(lasting, 3);
}

TEST(SignIn, WhoIsRemovedOrMadeAnewIsNobody) {
  DaemonProcess daemon(Transport::plain);
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const auto client = clientOf(daemon, "ada");
  ASSERT_EQ(outcomeOf(client), "ok");
  client->setUserName({});
  accounts.removeUser("ada");
  EXPECT_EQ(outcomeOf(client), "authorization required");
  EXPECT_EQ(outcomeOf(*client, PlistValue()), "authorization required") << "also where nothing is asked";
  accounts.makeUser("ada");
  EXPECT_EQ(outcomeOf(client), "authorization required") << "another record, though of that name and in that group";
}

TEST(Authorization, RulesAllowNamedCommandsAndNothingElse) {
  DaemonProcess daemon(Transport::plain);
  const Accounts accounts(daemon);
  accounts.makeAdministrator("ada");
  accounts.makeUser("bob");
  accounts.makeUser("eve");
  accounts.makeGroup("operators", "eve");
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const auto ada = clientOf(daemon, "ada");
  const auto bob = clientOf(daemon, "bob");
  const auto eve = clientOf(daemon, "eve");
  const std::string file = daemon.root() + "/etc/ostreld/authorization.plist";
  const std::string rules =
      "<plist version=\"1.0\"><dict><key>Rules</key><array>"
      "<dict><key>Users</key><array><string>bob</string></array><key>Commands</key><dict>"
      "<key>ostrel_sample</key><array><string>getState</string></array>"
      "<key>ostreld</key><array><string>getStatus</string></array></dict></dict>"
      "<dict><key>Groups</key><array><string>operators</string></array><key>Commands</key><dict>"
      "<key>ostrel_sample</key><array><string>*</string></array></dict></dict>"
      "</array></dict></plist>";
  struct Case {
    const std::shared_ptr<OstrelDaemonSession>& client;
    const char* module;
    const char* command;
    const char* without;
    const char* with;
  };
  const Case cases[] = {
      {ada, "ostrel_sample", "getState", "ok", "ok"},
      {ada, "ostreld", "getStatus", "ok", "ok"},
      {bob, "ostrel_sample", "getState", "403", "ok"},
      {bob, "ostrel_sample", "getstate", "403", "403"},
      {bob, "ostrel_sample", "getStateWithRequest:", "403", "403"},
      {bob, "ostrel_sample", "*", "403", "403"},
      {bob, "ostrel_sample", "setState", "403", "403"},
      {bob, "ostrel_test", "getState", "403", "403"},
      {bob, "ostreld", "getStatus", "403", "ok"},
      {bob, "ostreld", "unknown", "403", "403"},
      {eve, "ostrel_sample", "getInterfaces", "403", "ok"},
      {eve, "ostreld", "getStatus", "403", "403"},
  };
  const auto check = [&](bool withRules, const char* when) {
    for (const Case& c : cases) {
      c.client->setService(c.module);
      EXPECT_EQ(outcomeOf(c.client, c.command), withRules ? c.with : c.without)
          << when << ": " << c.module << " " << c.command;
    }
  };
  check(false, "no file");
  writeFile(file, rules);
  chmod(file.c_str(), 0644);
  check(true, "rules");
  bob->setService("ostrel_sample");
  EXPECT_EQ(outcomeOf(*bob, PlistValue::dictionaryOf({{"command", 5}})), "403");
  EXPECT_EQ(outcomeOf(*bob, PlistValue()), "ok") << "nothing is asked";

  chmod(file.c_str(), 0666);
  check(false, "others may write the file");
  const std::string damaged[] = {"",
                                 "<plist",
                                 "<plist><array/></plist>",
                                 "<plist><dict><key>rules</key><array/></dict></plist>",
                                 rules + "x",
                                 "<plist><dict><key>Rules</key><array><dict><key>Users</key><array><string>bob</string>"
                                 "</array><key>Commands</key><dict><key>ostrel_sample</key><string>*</string></dict>"
                                 "</dict></array></dict></plist>"};
  for (const std::string& text : damaged) {
    std::filesystem::remove(file);
    writeFile(file, text);
    chmod(file.c_str(), 0644);
    bob->setService("ostrel_sample");
    EXPECT_EQ(outcomeOf(bob), "403") << text;
  }
  EXPECT_THAT(daemon.log(), HasSubstr("authorization rules " + file));
  writeFile(file, rules);
  check(true, "mended");
}

TEST(Authorization, ABatchRunsWhenAllOfItIsAllowed) {
  DaemonProcess daemon(Transport::plain);
  const Accounts accounts(daemon);
  accounts.makeUser("bob");
  const std::string file = daemon.root() + "/etc/ostreld/authorization.plist";
  writeFile(file,
            "<plist version=\"1.0\"><dict><key>Rules</key><array><dict><key>Users</key><array><string>bob</string>"
            "</array><key>Commands</key><dict><key>ostrel_sample</key><array><string>getSetting</string>"
            "<string>setSetting</string></array></dict></dict></array></dict></plist>");
  chmod(file.c_str(), 0644);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const auto bob = clientOf(daemon, "bob", secret, "ostreld");
  const auto member = [](const char* module, PlistValue request) {
    return PlistValue::dictionaryOf({{"name", module}, {"request", std::move(request)}});
  };
  const PlistValue store = PlistValue::dictionaryOf({{"command", "setSetting"}, {"name", "a"}, {"value", "1"}});
  const auto batch = [](const std::vector<PlistValue>& members) {
    PlistValue array = PlistValue::mutableArray();
    for (const PlistValue& one : members) array.append(one);
    return PlistValue::dictionaryOf({{"command", "batch"}, {"requestsArray", array}});
  };
  const PlistValue forbidden[] = {
      batch({member("ostrel_sample", store), member("ostrel_test", command("getState"))}),
      batch({member("ostrel_test", command("getState")), member("ostrel_sample", store)}),
      batch({member("ostrel_sample", store), member("ostrel_sample", command("setState"))}),
      batch({member("ostrel_sample", store), member("ostreld", batch({member("ostrel_sample", store)}))}),
  };
  for (const PlistValue& request : forbidden) EXPECT_EQ(outcomeOf(*bob, request), "403") << request.description();
  const PlistValue read = PlistValue::dictionaryOf({{"command", "getSetting"}, {"name", "a"}});
  EXPECT_TRUE(daemon.send(read).get("value").isNull()) << "nothing of them has run";
  EXPECT_EQ(outcomeOf(*bob, batch({member("ostrel_sample", store), member("ostrel_sample", read)})), "ok");
  EXPECT_EQ(daemon.send(read).get("value").stringValue(), "1");
  EXPECT_THAT(daemon.log(),
              HasSubstr("module=\"ostrel_test\" command=\"getState\" outcome=\"refused 403 not allowed\""));

  const std::size_t logged = daemon.log().size();
  const PlistValue huge = batch(std::vector<PlistValue>(5000, member("ostrel_test", command("getState"))));
  EXPECT_EQ(outcomeOf(*bob, huge), "403");
  EXPECT_LT(daemon.log().size() - logged, 50'000U) << "a batch that is too large makes no line for each member";
}

TEST(SignIn, TheClientKeepsItsSessionUntilLogout) {
  DaemonProcess daemon(transport());
  const TemporaryFolder home;
  const auto control = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {OSTRELCTL_PROGRAM, "--root", daemon.root()});
    return runProgram(words, {"XDG_RUNTIME_DIR=" + home.path()});
  };
  const auto expect = [&](std::vector<std::string> words, int status, const std::string& text) {
    const Outcome outcome = control(words);
    EXPECT_EQ(outcome.status, status) << words[0] << ": " << outcome.errors;
    EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(text)) << words[0];
  };
  writeFile(home / "good", std::string(secret) + "\n");
  writeFile(home / "weak", "aaaaaaaaaa\n");
  writeFile(home / "new", "battery staple\n");
  expect({"directory", "init", "ada", "--password-file", home / "weak"}, 2, "different characters");
  expect({"directory", "init", "a b", "--password-file", home / "good"}, 2, "no spaces");
  expect({"directory", "init", "ada", "--password-file", home / "good"}, 0, "ada is an administrator");
  expect({"directory", "init", "bob", "--password-file", home / "good"}, 1, "ada is an administrator already");
  expect({"directory", "passwd", "bob", "--password-file", home / "good"}, 3, "no such user");

  ASSERT_TRUE(daemon.start({"--failed-sign-in-time", "0.1"})) << daemon.log();
  std::filesystem::remove(daemon.root() + "/var/ostreld/local_session");
  expect({"ostrel_sample", "getState"}, 3, "sign in with 'ostrelctl login'");
  expect({"login", "--user", "ada", "--password-file", home / "weak"}, 3, "wrong name or password");
  expect({"login", "--user", "ada", "--password-file", home / "good"}, 0, "signed in as ada");
  expect({"ostrel_sample", "getState"}, 0, "state: STOPPED");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home / "ostrelctl")) {
    EXPECT_EQ(entry.status().permissions(), std::filesystem::perms(0600)) << entry.path();
  }
  expect({"directory", "passwd", "ada", "--password-file", home / "new"}, 0, "");
  expect({"--user", "ada", "--password-file", home / "good", "status"}, 3, "wrong name or password");
  expect({"--user", "ada", "--password-file", home / "new", "status"}, 0, "daemon: ");
  {
    const Accounts accounts(daemon);
    accounts.makeUser("bob");
  }
  expect({"--user", "bob", "--password-file", home / "good", "status"}, 3, "an administrator can allow it");
  expect({"logout"}, 0, "signed out");
  expect({"logout"}, 2, "not signed in");
  expect({"ostrel_sample", "getState"}, 3, "sign in with 'ostrelctl login'");

  expect({"login", "--user", "ada", "--password-file", home / "new"}, 0, "signed in");
  ASSERT_EQ(daemon.stop(), 0);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  expect({"ostrel_sample", "getState"}, 3, "your session has ended");
  expect({"logout"}, 0, "signed out");
  expect({"ostrel_sample", "getState"}, 0, "state: STOPPED");
}

TEST(LocalAdministrator, IsCompletedAfterAnInterruption) {
  const TemporaryFolder folder;
  const ScopedHostRoot root(folder.path());
  DirectoryHandle session = 0;
  DirectoryHandle node = 0;
  ASSERT_EQ(DSOpenDirectoryServices({}, 0, {}, {}, &session), 0);
  ASSERT_EQ(DSOpenNodeByPath(session, "/Local", &node), 0);
  const auto user = [&](const char* attribute) {
    char* value = nullptr;
    DSGetRecordAttributeValueByName(session, node, "dsRecTypeStandard:Users", "ada", attribute, &value);
    const std::string text(value == nullptr ? "" : value);
    free(value);
    return text;
  };
  // Each state that an interruption leaves; then all of it is done.
  std::string fault;
  const std::function<void()> leftBehind[] = {
      [] {},
      [&] { DSCreateRecordByName(session, node, "dsRecTypeStandard:Groups", "admin"); },
      [&] { DSCreateRecordByName(session, node, "dsRecTypeStandard:Users", "ada"); },
      [&] {
        makeAdministrator("ada", "", secret, fault);
        for (const char* attribute : {"dsAttrTypeStandard:Member", "dsAttrTypeStandard:GroupMembership"})
          DSRemoveRecordAttributeByName(session, node, "dsRecTypeStandard:Groups", "admin", attribute);
      },
      [&] {
        makeAdministrator("ada", "", secret, fault);
        DSRemoveRecordAttributeByName(session, node, "dsRecTypeStandard:Users", "ada", "dsAttrTypeStandard:Password");
      },
  };
  for (const auto& leave : leftBehind) {
    leave();
    EXPECT_EQ(knownAdministrator(fault), std::nullopt);
    ASSERT_TRUE(makeAdministrator("ada", "Ada", secret, fault)) << fault;
    EXPECT_EQ(knownAdministrator(fault), "ada");
    const std::string identifier = user("dsAttrTypeStandard:GeneratedUID");
    ASSERT_TRUE(makeAdministrator("ada", "Other", secret, fault)) << fault;
    EXPECT_EQ(user("dsAttrTypeStandard:GeneratedUID"), identifier);
    EXPECT_GE(std::stoi(user("dsAttrTypeStandard:UniqueID")), 501);
    DSRemoveRecordByName(session, node, "dsRecTypeStandard:Users", "ada");
    DSRemoveRecordByName(session, node, "dsRecTypeStandard:Groups", "admin");
  }
  EXPECT_FALSE(makeAdministrator("root", "", secret, fault));
  EXPECT_THAT(fault, HasSubstr("choose another name"));
  DSCloseNode(session, &node);
  DSCloseDirectoryServices(&session);
}

}  // namespace
}  // namespace ostrel
