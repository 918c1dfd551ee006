#include "PluginFramework/ContextStore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <span>
#include <string>
#include <string_view>

#include "Containers/PropertyList.h"
#include "HostFixture.h"
#include "PluginFramework/BundleManager.h"
#include "SystemCallTrap.h"

namespace ostrel {
namespace {

using testing::HostFixture;
using testing::logLine;
using testing::SystemCallTrap;
using testing::WatchedManager;

/// A context that is held until the end of a scope, by another open file.
class HeldContext {
 public:
  explicit HeldContext(std::string_view module) : context_(get_and_lock_context(module, &descriptor_)) {}
  ~HeldContext() { set_and_unlock_context(&descriptor_, &context_); }
  HeldContext(const HeldContext&) = delete;
  HeldContext& operator=(const HeldContext&) = delete;
  PlistValue& operator*() { return context_; }

 private:
  int descriptor_ = -1;
  PlistValue context_;
};

PlistValue stored(const HostFixture& host, std::string_view module) {
  return readPropertyList(testing::readFile(host.lockFile(module)));
}

void setFileTime(const std::string& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 500'000'000}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

/// One request through a host: gives the context to `work` between lock and unlock.
template <class Work>
void withContext(BundleManager& manager, std::string_view module, Work work) {
  int descriptor = -1;
  bool timedOut = true;
  PlistValue context = manager.getAndLockContext(module, &descriptor, &timedOut);
  ASSERT_FALSE(timedOut);
  ASSERT_GE(descriptor, 0);
  work(context);
  manager.setAndUnlockContext(context, module, &descriptor);
  EXPECT_EQ(descriptor, -1);
}

TEST(ContextStore, MakesTheFileOnFirstUse) {
  const HostFixture host;
  const mode_t mask = umask(027);
  BundleManager manager;
  withContext(manager, "mail", [](PlistValue& context) {
    EXPECT_EQ(context, PlistValue::dictionaryOf({{"contextDirty", false}}));
    EXPECT_TRUE(context.isMutable());
  });
  { HeldContext(std::string_view("web")); }
  EXPECT_EQ(umask(mask), 027U);
  EXPECT_EQ(testing::statusOf(host.lockFile("mail")).st_mode & 07777, 0750U) << "the host leaves the mask in force";
  EXPECT_EQ(testing::statusOf(host.lockFile("web")).st_mode & 07777, 0770U);
  EXPECT_EQ(testing::statusOf(host.lockFile("mail")).st_size, 0) << "a clean context is not written";
}

TEST(ContextStore, WritesWhatIsMarkedDirty) {
  const struct {
    PlistValue mark;
    bool written;
  } cases[] = {{true, true}, {1, true}, {"YES", true}, {false, false}, {0, false}, {"yes", false}, {"true", false}};
  for (const auto& [mark, written] : cases) {
    const HostFixture host;
    const auto change = [&dirty = mark](PlistValue& context) {
      context.set("_user_", "alice");
      context.set("kept", 1);
      context.set("contextDirty", dirty);
    };
    BundleManager manager;
    withContext(manager, "mail", change);
    const PlistValue byHost = PlistValue::dictionaryOf({{"kept", 1}, {"contextDirty", false}});
    EXPECT_EQ(stored(host, "mail"), written ? byHost : PlistValue()) << mark.description();
    {
      HeldContext held("web");
      change(*held);
    }
    const PlistValue byTool = PlistValue::dictionaryOf({{"kept", 1}, {"_user_", "alice"}});
    EXPECT_EQ(stored(host, "web"), written ? byTool : PlistValue()) << mark.description();
  }
}

TEST(ContextStore, EraserAndDoubleUnlock) {
  const HostFixture host;
  int descriptor = -1;
  PlistValue context = get_and_lock_context("mail", &descriptor);
  context.set("contextDirty", true);
  set_and_unlock_context(&descriptor, &context);
  EXPECT_GT(testing::statusOf(host.lockFile("mail")).st_size, 0);
  set_and_unlock_context(&descriptor, nullptr);
  set_and_unlock_context(nullptr, nullptr);
  EXPECT_GT(testing::statusOf(host.lockFile("mail")).st_size, 0) << "unlocked twice: nothing happens";

  get_and_lock_context("mail", &descriptor);
  const PlistValue none;
  set_and_unlock_context(&descriptor, &none);
  EXPECT_EQ(descriptor, -1);
  EXPECT_EQ(testing::statusOf(host.lockFile("mail")).st_size, 0);
  EXPECT_EQ(**std::make_unique<HeldContext>("mail"), PlistValue::dictionaryOf({{"contextDirty", false}}));
}

TEST(ContextStore, SharesTheCachedContextUntilTheFileIsNewer) {
  const HostFixture host;
  BundleManager manager;
  PlistValue first;
  withContext(manager, "mail", [&](PlistValue& context) {
    context.set("nested", PlistValue::mutableDictionaryOf({{"n", 1}}));
    context.set("contextDirty", true);
    first = context;
  });
  withContext(manager, "mail", [&](PlistValue& context) {
    EXPECT_TRUE(context.isIdentical(first)) << "shared, not copied";
    context.set("unmarked", true);
  });
  const time_t written = testing::statusOf(host.lockFile("mail")).st_mtime;
  for (const time_t date : {written, written - 100}) {
    setFileTime(host.lockFile("mail"), date);  // half a second into it: whole seconds are compared
    withContext(manager, "mail", [&](PlistValue& context) {
      EXPECT_TRUE(context.isIdentical(first));
      EXPECT_TRUE(context.contains("unmarked")) << "still to be seen";
    });
  }
  setFileTime(host.lockFile("mail"), written + 1);
  withContext(manager, "mail", [&](PlistValue& context) {
    EXPECT_FALSE(context.isIdentical(first));
    EXPECT_FALSE(context.contains("unmarked")) << "lost at the load from disk";
    EXPECT_TRUE(context.get("nested").isMutable());
  });
  {
    HeldContext held("mail");
    (*held).set("other", "process");
    (*held).set("contextDirty", true);
  }
  setFileTime(host.lockFile("mail"), written + 2);
  manager.updateContextCache("mail");
  withContext(manager, "mail", [](PlistValue& context) { EXPECT_EQ(context.get("other"), PlistValue("process")); });
}

TEST(ContextStore, WaitsAsLongAsTheModuleMayTake) {
  const HostFixture host;
  testing::writeFile(host / "var/tmp/ostrel_plugin_debug", "");
  const struct {
    std::string module;
    int seconds;
  } cases[] = {{"ostrel_web", 900},      {"ostrel_accounts", 900}, {"ostrel_mail", 900}, {"ostrel_print", 900},
               {"ostrel_swupdate", 900}, {"ostrel_Web", 120},      {"ostrel_dns", 120}};
  for (const auto& [module, seconds] : cases) {
    testing::FakeClock clock;
    testing::RecordingLog log;
    const ScopedOverride<Clock> clockOverride(clock);
    const ScopedOverride<SystemLog> logOverride(log);
    WatchedManager manager;
    manager.addMarker(PlistValue::mutableDictionaryOf({{"Module", module}, {"Request", "secret"}}));
    const HeldContext held(module);
    int descriptor = -1;
    bool timedOut = false;
    EXPECT_TRUE(manager.getAndLockContext(module, &descriptor, &timedOut).isNull());
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(manager.quits, 1);
    EXPECT_EQ(clock.monotonic(), std::chrono::seconds(seconds)) << module;
    EXPECT_EQ(clock.sleeps(), seconds * 10);

    const auto records = log.records();
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].priority, 4);
    EXPECT_EQ(records[0].message,
              logLine(module + " has waited 10 seconds for its context, which no request of this process holds"));
    const std::string requests = PlistValue::arrayOf({PlistValue::dictionaryOf({{"Module", module}})}).description();
    EXPECT_EQ(records[1].message, "requests = " + requests);
    ASSERT_EQ(records[1].fields.size(), 6U);
    EXPECT_EQ(records[1].fields[5].second, "ostreld: " + module + " detected deadlock");
    EXPECT_EQ(records[2].message, logLine("error in getAndLockContext: flock(" + module + ") FATAL time out"));
    EXPECT_EQ(records[3].message, logLine("process will force-quit to avoid deadlock"));
    EXPECT_EQ(records[4].message, logLine("outstanding requests are: " + requests));
    EXPECT_EQ(records[4].priority, 5);
  }
}

TEST(ContextStore, ReopensAfterAFailedLockWithoutANewBudget) {
  const HostFixture host;
  testing::FakeClock clock;
  testing::RecordingLog log;
  const ScopedOverride<Clock> clockOverride(clock);
  const ScopedOverride<SystemLog> logOverride(log);
  WatchedManager manager;
  const HeldContext held("dns");
  SystemCallTrap::locks = 0;
  SystemCallTrap::failLockAt = 501;
  int descriptor = -1;
  bool timedOut = false;
  manager.getAndLockContext("dns", &descriptor, &timedOut);
  SystemCallTrap::failLockAt = 0;
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(clock.sleeps(), 1'200);
  ASSERT_EQ(log.lines().size(), 5U) << "one warning, whatever is opened again";
  const std::string line = log.lines()[1];
  const std::string start = logLine("error in getAndLockContext: flock returned -1 (errno=5) fd = ");
  ASSERT_TRUE(line.starts_with(start)) << line;
  EXPECT_TRUE(line.ends_with(" file was " + (host / "private/var/ostreld//dns.lock"))) << line;
  const int failed = std::stoi(line.substr(start.size()));
  EXPECT_EQ(fcntl(failed, F_GETFD), FD_CLOEXEC) << "the failed descriptor stays open";
  close(failed);
}

TEST(ContextStore, ToolsGiveUpOnlyWhenTheyCanTell) {
  const HostFixture host;
  testing::FakeClock clock;
  testing::RecordingLog log;
  const ScopedOverride<Clock> clockOverride(clock);
  const ScopedOverride<SystemLog> logOverride(log);
  int descriptor = -1;
  bool timedOut = false;
  {
    const HeldContext held("dns");
    EXPECT_TRUE(get_and_lock_context_with_timeout("dns", &descriptor, &timedOut).isNull());
  }
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(clock.sleeps(), 120'000);
  EXPECT_EQ(clock.monotonic(), std::chrono::seconds(120));
  EXPECT_EQ(log.lines(), std::vector<std::string>{
                             logLine("error in get_and_lock_context: flock(" + host.lockFile("dns") + ") failed\n")});
  EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC) << "it stays open";
  close(descriptor);

  SystemCallTrap::locks = 0;
  SystemCallTrap::failLockAt = 1;
  const PlistValue context = get_and_lock_context_with_timeout("dns", &descriptor, &timedOut);
  EXPECT_EQ(context, PlistValue::dictionaryOf({{"contextDirty", false}})) << "goes on without the lock";
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(log.lines().back(), logLine("error in get_and_lock_context: -1 (errno=5)\n"));
  set_and_unlock_context(&descriptor, &context);
}

TEST(ContextStore, NamesWithSlashOrNul) {
  using namespace std::string_literals;
  const HostFixture host;
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  { HeldContext(std::string_view("../../etc/dns")); }
  { HeldContext(std::string_view("dns/")); }
  EXPECT_NE(testing::statusOf(host.lockFile("dns")).st_mode, 0U) << "tools take the last component";
  EXPECT_NE(testing::statusOf(host.lockFile("")).st_mode, 0U);
  EXPECT_TRUE(log.lines().empty());

  BundleManager manager;
  for (const std::string& name : {"../ostreld/dns"s, "dns/"s, "dns\0x"s}) {
    int descriptor = 0;
    bool timedOut = false;
    EXPECT_TRUE(manager.getAndLockContext(name, &descriptor, &timedOut).isNull()) << name;
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(descriptor, -1);
    EXPECT_TRUE(log.lines().back().starts_with(logLine("error in getAndLockContext: open returned -1 (errno=")));
    EXPECT_TRUE(log.lines().back().ends_with(")  file was " + (host / "private/var/ostreld//") + name + ".lock"));
  }
  int descriptor = 0;
  get_and_lock_context("dns\0x"s, &descriptor);
  EXPECT_EQ(descriptor, -1) << "a NUL names nothing for tools either";
}

TEST(ContextStore, CorruptBytesGiveAnEmptyContextAndAreKeptAside) {
  for (const std::string& bytes :
       {std::string("bplist00 not really"), *writeBinaryPropertyList(PlistValue::arrayOf({1, 2}))}) {
    const HostFixture host;
    testing::RecordingLog log;
    const ScopedOverride<SystemLog> override(log);
    testing::writeFile(host.lockFile("dns"), bytes);
    BundleManager manager;
    withContext(manager, "dns", [](PlistValue& context) {
      EXPECT_EQ(context, PlistValue::dictionaryOf({{"contextDirty", false}}));
      context.set("contextDirty", true);
    });
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with(logLine("exception in get_and_lock_context: "))) << log.lines()[0];
    EXPECT_EQ(stored(host, "dns"), PlistValue::dictionaryOf({{"contextDirty", false}}));
    EXPECT_EQ(testing::readFile(host.lockFile("dns") + ".unreadable"), bytes);
  }
}

/// Asks for another module's context whenever it is given a line.
class AskingLog final : public SystemLog {
 public:
  explicit AskingLog(BundleManager& manager) : manager_(manager) {}
  void write(int, std::string_view) override {
    manager_.updateContextCache("other");
    ++lines;
  }
  void writeRecord(int, std::span<const Field>, std::string_view) override {}
  int lines = 0;

 private:
  BundleManager& manager_;
};

TEST(ContextStore, AModuleWhoseFileIsReadHoldsUpNoOther) {
  const HostFixture host;
  BundleManager manager;
  AskingLog log(manager);
  const ScopedOverride<SystemLog> override(log);
  testing::writeFile(host.lockFile("dns"), "corrupt");
  manager.updateContextCache("dns");
  EXPECT_EQ(log.lines, 1);
}

TEST(ContextStore, TwoProcessesTakeTurns) {
  const HostFixture host;
  constexpr int rounds = 200;
  const auto count = [] {
    for (int i = 0; i < rounds; ++i) {
      HeldContext held("dns");
      (*held).set("count", (*held).get("count").int64Value() + 1);
      (*held).set("contextDirty", true);
    }
  };
  const pid_t child = fork();
  if (child == 0) {
    count();
    _exit(0);
  }
  count();
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(stored(host, "dns").get("count"), PlistValue(2 * rounds));
}

TEST(ContextStore, AContextThatCannotBeWrittenLeavesTheStoredOne) {
  const HostFixture host;
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  BundleManager manager;
  const auto store = [&](const PlistValue& value) {
    withContext(manager, "dns", [&](PlistValue& context) {
      context.set("value", value);
      context.set("contextDirty", true);
    });
  };
  store("good");
  store("\xFF");  // not UTF-8: cannot be archived
  EXPECT_EQ(stored(host, "dns").get("value"), PlistValue("good"));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0],
            logLine("error in setAndUnlockContext: context of dns not written: the context cannot be archived"));
}

}  // namespace
}  // namespace ostrel
