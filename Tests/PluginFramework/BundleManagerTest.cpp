#include "PluginFramework/BundleManager.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Containers/PropertyList.h"
#include "HostFixture.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Mutex.h"
#include "Platform/NotificationCenter.h"
#include "PluginFramework/PluginRequestHandler.h"
#include "SystemCallTrap.h"

namespace ostrel {
namespace {

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::HostFixture;
using testing::logLine;

constexpr std::chrono::seconds patience{20};

PlistValue error(const char* code) { return PlistValue::dictionaryOf({{"error", code}}); }
PlistValue command(const char* name) { return PlistValue::dictionaryOf({{"command", name}}); }
PlistValue failRequest(const char* kind, bool unlockFirst = false) {
  return PlistValue::dictionaryOf({{"command", "fail"}, {"kind", kind}, {"unlockFirst", unlockFirst}});
}

/// Keeps the "setState" notifications of a scope.
class StateObserver {
 public:
  StateObserver() {
    NotificationCenter::defaultCenter().addObserver(this, "setState", [this](const Notification& notification) {
      const MutexLock lock(mutex_);
      notifications_.push_back(notification);
    });
  }
  ~StateObserver() { NotificationCenter::defaultCenter().removeObserver(this); }
  StateObserver(const StateObserver&) = delete;
  StateObserver& operator=(const StateObserver&) = delete;
  std::vector<Notification> notifications() {
    const MutexLock lock(mutex_);
    return notifications_;
  }

 private:
  Mutex mutex_;
  std::vector<Notification> notifications_ OSTREL_GUARDED_BY(mutex_);
};

TEST(BundleManager, LoadsWhatItCanAndTellsTheRest) {
  const HostFixture host;
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const std::map<std::string, std::string> failing{{"NoFactory", "ostrelModuleInterface"},
                                                   {"NoHandler", "made no handler"},
                                                   {"ThrowsInConstructor", "licence expired"},
                                                   {"WrongVersion", "module interface 2"}};
  host.install("Good", "zebra.bundle");
  host.install("Good", "Bear.old.bundle");
  host.install("AnswersNull", "ant");  // whatever its extension
  for (const auto& [bundle, reason] : failing) host.install(bundle, bundle + ".bundle");
  testing::writeFile(host / "usr/share/ostreld/bundles/notes.txt", "no bundle");
  {
    const BundleManager manager;
    EXPECT_THAT(manager.moduleNames(), ElementsAre("ant", "Bear", "zebra"));
    EXPECT_NE(manager.getPrincipalClass("Bear"), nullptr);
    EXPECT_EQ(manager.getPrincipalClass("bear"), nullptr);
    EXPECT_EQ(manager.getBundle("Bear")->path(), host / "usr/share/ostreld/bundles/Bear.old.bundle");
    EXPECT_EQ(manager.getBundle("NoFactory"), nullptr);
    ASSERT_EQ(manager.loadFailures().size(), failing.size() + 1);
    for (const auto& failure : manager.loadFailures()) {
      const auto expected = failing.find(std::filesystem::path(failure.path).stem().string());
      EXPECT_THAT(failure.reason, HasSubstr(expected == failing.end() ? "notes.txt" : expected->second));
    }
  }
  EXPECT_TRUE(log.lines().empty()) << "failures are not logged";
  testing::writeFile(host / "var/tmp/ostrel_plugin_debug", "");
  const BundleManager talking;
  EXPECT_EQ(log.lines().size(), 8U);
  EXPECT_TRUE(log.holds(logLine("Loading module Bear")));
}

TEST(BundleManager, ASingleModuleHostKeepsNoRequests) {
  const HostFixture host;
  host.install("Good", "one.bundle");
  host.install("Good", "two.bundle");
  const auto manager = BundleManager::managerForBundle("one");
  EXPECT_THAT(manager->moduleNames(), ElementsAre("one"));
  manager->addMarker(PlistValue::mutableDictionary());
  EXPECT_EQ(manager->CopyOutstandingRequests(), PlistValue::arrayOf({}));
  EXPECT_EQ(manager->doCommand(command("count"), "one", nullptr), PlistValue::dictionaryOf({{"count", 1}}));
  EXPECT_EQ(manager->doCommand(command("count"), "two", nullptr), error("CANNOT_LOAD_BUNDLE_ERR"));
  EXPECT_TRUE(BundleManager::managerForBundle("../bundles/one")->moduleNames().empty());
  EXPECT_TRUE(BundleManager("missing").moduleNames().empty());
}

TEST(BundleManager, RunsRequestsInTheirModulesContext) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  host.install("AnswersNull", "silent.bundle");
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  BundleManager manager;
  const PlistValue stopped = PlistValue::dictionaryOf({{"state", "STOPPED"}, {"user", "alice"}});
  const PlistValue nobody = PlistValue::dictionaryOf({{"state", "STOPPED"}, {"user", "nobody"}});
  EXPECT_EQ(manager.doCommand(command("getState"), "good", "alice"), stopped);
  EXPECT_EQ(manager.doCommand(command("getState"), "good", nullptr), nobody) << "the former user is gone";
  EXPECT_EQ(manager.doCommand(command("x"), "other", nullptr), error("CANNOT_LOAD_BUNDLE_ERR"));
  EXPECT_EQ(manager.doCommand(command("x"), "good", nullptr), error("UNEXPECTED_COMMAND"));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(manager.doCommand(nullptr, "good", nullptr), error("UNEXPECTED_COMMAND"));
  EXPECT_EQ(manager.doCommand(command("x"), "silent", nullptr), error("UNEXPECTED_COMMAND"));
  EXPECT_THAT(log.lines(), ElementsAre(logLine("--Module good returned nil response"),
                                       logLine("--Module silent returned nil response")));

  const PlistValue shared = manager.doCommand(command("leakContext"), "good", nullptr);
  EXPECT_TRUE(shared.isMutable()) << "told, and used all the same";
  const auto lines = log.lines();
  EXPECT_THAT(std::vector(lines.begin() + 2, lines.end()),
              ElementsAre(ContainsRegex("--Module good's response has retain count of [2-9]\\.$"),
                          logLine("--request was " + command("leakContext").description()),
                          logLine("--response was " + shared.description())));

  std::filesystem::remove_all(host / "private/var/ostreld");
  EXPECT_EQ(manager.doCommand(command("getState"), "good", nullptr), error("CANNOT_RUN_BUNDLE_ERR"));
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U) << "no marker is left behind";
}

TEST(BundleManager, KeepsStateAcrossHosts) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  EXPECT_EQ(BundleManager().doCommand(command("count"), "good", "alice"), PlistValue::dictionaryOf({{"count", 1}}));
  EXPECT_EQ(BundleManager().doCommand(command("count"), "good", "bob"), PlistValue::dictionaryOf({{"count", 2}}));
  EXPECT_EQ(readPropertyList(testing::readFile(host.lockFile("good"))),
            PlistValue::dictionaryOf({{"count", 2}, {"contextDirty", false}}));
}

TEST(BundleManager, TurnsExceptionsIntoResponses) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  const struct {
    const char* kind;
    PlistValue reason;
  } cases[] = {{"exception", "out of paper"}, {"text", "no toner"}, {"number", "exception of type int"},
               {"bytes", "jam ??"},           {"silent", nullptr},  {"null", nullptr}};
  BundleManager manager;
  int failures = 0;
  for (const auto& [kind, reason] : cases) {
    for (const bool unlockFirst : {false, true}) {
      testing::RecordingLog log;
      const ScopedOverride<SystemLog> override(log);
      const PlistValue request = failRequest(kind, unlockFirst);
      const PlistValue response = manager.doCommand(request, "good", nullptr);
      EXPECT_EQ(response,
                reason.isNull() ? PlistValue() : error(("NIL_RESPONSE_ERR (" + reason.description() + ")").c_str()));
      EXPECT_THAT(log.lines(), ElementsAre(logLine("Exception in doCommand for module good: " + reason.description()),
                                           logLine("--request was " + request.description())));
      EXPECT_EQ(readPropertyList(testing::readFile(host.lockFile("good"))).get("failures"), PlistValue(++failures))
          << "what it changed before is kept, and the lock is free";
    }
  }
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U);
}

TEST(BundleManager, ShowsRunningRequests) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  BundleManager manager;
  const PlistValue request = PlistValue::dictionaryOf({{"command", "waitForFile"}, {"file", host / "go"}});
  std::thread runner([&] {
    EXPECT_EQ(manager.doCommand(request, "good", nullptr), PlistValue::dictionaryOf({{"waited", true}}));
  });
  PlistValue requests = manager.CopyOutstandingRequests();
  while (requests.count() == 0) requests = manager.CopyOutstandingRequests();
  testing::writeFile(host / "go", "");
  runner.join();
  ASSERT_EQ(requests.count(), 1U);
  const PlistValue marker = requests.at(0);
  EXPECT_EQ(marker.get("Module"), PlistValue("good"));
  EXPECT_EQ(marker.get("Command"), PlistValue("waitForFile"));
  EXPECT_TRUE(marker.get("Timestamp").isDate());
  EXPECT_TRUE(marker.get("Request").isIdentical(request));
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U);

  const PlistValue one = PlistValue::mutableDictionaryOf({{"Module", "a"}});
  const PlistValue equal = PlistValue::mutableDictionaryOf({{"Module", "a"}});
  for (const PlistValue& added : {one, equal, one}) manager.addMarker(added);
  manager.removeMarker(one);
  ASSERT_EQ(manager.CopyOutstandingRequests().count(), 1U) << "identity counts, not equality";
  EXPECT_TRUE(manager.CopyOutstandingRequests().at(0).isIdentical(equal));
  EXPECT_FALSE(Redact(manager.CopyOutstandingRequests()).at(0).contains("Request"));
}

TEST(BundleManager, AnnouncesStateChanges) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  StateObserver observer;
  BundleManager manager;
  const auto setState = [&](const PlistValue& state) {
    const PlistValue request = PlistValue::dictionaryOf({{"command", "setState"}, {"state", state}});
    PlistValue response = manager.doCommand(request, "good", nullptr);
    EXPECT_TRUE(manager.finishBackgroundWork(patience));
    return response;
  };
  EXPECT_EQ(setState("START").get("state"), PlistValue("RUNNING"));
  EXPECT_EQ(setState("explode"), error("INVALID_ARG_ERR"));
  EXPECT_EQ(setState(nullptr), error("INVALID_ARG_ERR"));
  manager.doCommand(command("getState"), "good", nullptr);
  manager.doCommand(command("setState"), "absent", nullptr);
  EXPECT_TRUE(manager.finishBackgroundWork(patience));

  const auto heard = observer.notifications();
  ASSERT_EQ(heard.size(), 3U) << "one each, and none for the others";
  EXPECT_EQ(heard[0].object, PlistValue("good"));
  EXPECT_EQ(heard[0].userInfo,
            PlistValue::dictionaryOf({{"bundle", "good"}, {"stateCommand", "START"}, {"state", "RUNNING"}}));
  EXPECT_EQ(heard[1].userInfo, PlistValue::dictionaryOf({{"bundle", "good"}, {"stateCommand", "explode"}}));
  EXPECT_EQ(heard[2].userInfo, PlistValue::dictionaryOf({{"bundle", "good"}}));
}

TEST(BundleManager, AnObserverMayRunARequestWhileTheHostGoes) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  auto manager = std::make_unique<BundleManager>();
  std::atomic<bool> going = false;
  std::atomic<int> heard = 0;
  auto& center = NotificationCenter::defaultCenter();
  center.addObserver(&heard, "setState", [&, raw = manager.get()](const Notification&) {
    if (++heard > 1) return;
    while (!going) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until the destructor waits
    raw->doCommand(command("setState"), "good", nullptr);
  });
  manager->doCommand(command("setState"), "good", nullptr);
  going = true;
  manager.reset();
  center.removeObserver(&heard);
  EXPECT_EQ(heard, 2);
}

TEST(BundleManager, LogsWhatAnObserverThrows) {
  const HostFixture host;
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const int identity = 0;
  auto& center = NotificationCenter::defaultCenter();
  center.addObserver(&identity, "setState", [](const Notification&) { throw std::runtime_error("deaf"); });
  BundleManager manager;
  const Notification notification{"setState", "good", nullptr, nullptr};
  manager.postCommandNotification(notification);
  center.removeObserver(&identity);
  EXPECT_THAT(log.lines(), ElementsAre(logLine("Exception in postCommandNotification: deaf notification was :" +
                                               notification.description())));
}

TEST(BundleManager, ModulesHearOfNetworkChanges) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  BundleManager manager;
  const PlistValue state =
      PlistValue::arrayOf({PlistValue::dictionaryOf({{"name", "eth0"}, {"ipAddress", "10.0.0.9"}})});
  NotificationCenter::defaultCenter().postNotification(
      {"com.brantle.ostrel_info.netchanged", nullptr, PlistValue::dictionaryOf({{"newState", state}}), nullptr});
  EXPECT_EQ(manager.doCommand(command("getAddress"), "good", nullptr).get("address"), PlistValue("10.0.0.9"));
}

TEST(BundleManager, RunsModulesSideBySideAndOneModuleInTurn) {
  const HostFixture host;
  host.install("Good", "one.bundle");
  host.install("Good", "two.bundle");
  StateObserver observer;
  constexpr int rounds = 25;
  BundleManager manager;
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> threads;
    for (const char* module : {"one", "two", "one", "two"}) {
      threads.emplace_back([&manager, &wrong, module] {
        for (int i = 0; i < rounds; ++i) {
          if (manager.doCommand(command("count"), module, "alice").get("count").isNull()) ++wrong;
          const PlistValue start = PlistValue::dictionaryOf({{"command", "setState"}, {"state", "START"}});
          if (manager.doCommand(start, module, nullptr).get("state") != PlistValue("RUNNING")) ++wrong;
          manager.CopyOutstandingRequests();
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(manager.finishBackgroundWork(patience));
  EXPECT_EQ(observer.notifications().size(), 4U * rounds);
  for (const char* module : {"one", "two"})
    EXPECT_EQ(manager.doCommand(command("count"), module, nullptr).get("count"), PlistValue(2 * rounds + 1));
}

TEST(BundleManager, LetsTheContextErrorThrough) {
  const HostFixture host;
  host.install("Good", "good.bundle");
  BundleManager manager;
  testing::SystemCallTrap::failStatus = true;
  try {
    manager.doCommand(command("getState"), "good", nullptr);
    FAIL();
  } catch (const ContextError& error) {
    EXPECT_STREQ(error.name(), "contextError");
    EXPECT_STREQ(error.what(), "getAndLockContext: error getting file mod date");
  }
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 1U) << "the request holds the lock still";
  const FileDescriptor other = openFile(host.lockFile("good"), O_RDWR);
  EXPECT_FALSE(tryLockFile(other.get()));
}

TEST(DeadlockReport, TellsModuleRequestsAndHeap) {
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const PlistValue marker = PlistValue::mutableDictionaryOf({{"Module", "mail"}, {"Request", "password"}});
  LogDeadlockToMessageTracer(PlistValue::arrayOf({marker}), "mail");
  EXPECT_FALSE(marker.contains("Request")) << "the running request's marker is redacted too";
  ASSERT_EQ(log.records().size(), 1U);
  const auto record = log.records()[0];
  EXPECT_EQ(record.priority, 5);
  EXPECT_EQ(record.message, "requests = " + PlistValue::arrayOf({marker}).description());
  const std::vector<std::string> keys{"domain", "result", "value", "value1", "value2", "signature"};
  ASSERT_EQ(record.fields.size(), keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(record.fields[i].first, "com.brantle.message." + keys[i]);
  EXPECT_EQ(record.fields[0].second, "com.brantle.ostreld.deadlock");
  EXPECT_EQ(record.fields[1].second, "noop");
  for (const std::size_t i : {2U, 3U, 4U}) EXPECT_THAT(record.fields[i].second, ::testing::MatchesRegex("[0-9]+"));
  EXPECT_EQ(record.fields[5].second, "ostreld: mail detected deadlock");
}

TEST(ForceQuitDeathTest, EndsOrCrashesTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const HostFixture host;
  const auto quit = [](bool crash) {
    signal(SIGSEGV, SIG_DFL);  // also under a sanitizer that would catch it
    BundleManager manager;
    manager.setCrashOnHangTimeout(crash);
    manager.forceQuitNow_PleaseLookAtHungThreadAndNotThisThread();
  };
  EXPECT_EXIT(quit(false), ::testing::ExitedWithCode(1), "");
  EXPECT_EXIT(quit(true), ::testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
}  // namespace ostrel
