// What hangs: the warning before the limit, and the real end of the process behind it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "Containers/Format.h"
#include "HostFixture.h"
#include "Platform/FileDescriptor.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using testing::HostFixture;
using ::testing::Not;
using testing::WatchedManager;

/// Shows lines and records as they are.
class ErrorStreamLog final : public SystemLog {
 public:
  void write(int priority, std::string_view line) override {
    writeFully(STDERR_FILENO, format("<%d> %s\n", priority, line));
  }
  void writeRecord(int priority, std::span<const Field> fields, std::string_view message) override {
    std::string record;
    for (const auto& [key, value] : fields) record += key + "=" + value + ";";
    write(priority, record + std::string(message));
  }
};

PlistValue waitFor(const std::string& file) {
  return PlistValue::dictionaryOf({{"command", "waitForFile"}, {"file", file}});
}

TEST(Watchdog, WarnsOnceOfALongWaitAndNamesTheHolder) {
  const HostFixture host;
  host.install("Good", "ostrel_dns.bundle");
  testing::FakeClock clock;
  testing::RecordingLog log;
  const ScopedOverride<Clock> clockOverride(clock);
  const ScopedOverride<SystemLog> logOverride(log);
  WatchedManager manager;
  std::thread holder([&] { manager.doCommand(waitFor(host / "secret"), "ostrel_dns", "alice"); });
  while (manager.outstandingRequestsWithoutArguments().count() == 0) std::this_thread::yield();
  while (!host.lockFile("ostrel_dns").empty() && testing::statusOf(host.lockFile("ostrel_dns")).st_mode == 0)
    std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(manager.longestOverrun().count(), 0);
  manager.doCommand(waitFor("other"), "ostrel_dns", "bob");
  EXPECT_EQ(manager.quits, 1);
  testing::writeFile(host / "secret", "");
  holder.join();

  int warnings = 0;
  for (const auto& record : log.records()) {
    if (record.priority != 4) continue;
    ++warnings;
    EXPECT_THAT(record.message, ContainsRegex("^\\[[0-9]+\\] ostrel_dns has waited 10 seconds for its context, which "
                                              "ostrel_dns waitForFile had last, begun [0-9]+ seconds ago$"));
  }
  EXPECT_EQ(warnings, 1);
  EXPECT_EQ(manager.longestOverrun().count(), 0);
}

enum class Trigger { lock, batch };

/// Runs into a limit, in a module that waits for `file`.
void hang(BundleManager& manager, Trigger trigger, const std::string& file) {
  const PlistValue forEver = waitFor(file);
  if (trigger == Trigger::batch) {
    const PlistValue member = PlistValue::dictionaryOf({{"name", "ostrel_dns"}, {"request", forEver}});
    manager.doBatchCommand(PlistValue::dictionaryOf({{"requestsArray", PlistValue::arrayOf({member})}}), "alice");
    return;
  }
  std::thread holder([&] { manager.doCommand(forEver, "ostrel_dns", "alice"); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  manager.doCommand(forEver, "ostrel_dns", "bob");
  holder.join();
}

/// A host whose forced quit does not come through within 31 seconds; the module is let go then.
class StuckManager final : public BundleManager {
 public:
  explicit StuckManager(std::string file) : file_(std::move(file)) {}
  void forceQuitNow_PleaseLookAtHungThreadAndNotThisThread() override {
    before = longestOverrun();
    Clock::current().sleepFor(std::chrono::seconds(31));
    after = longestOverrun();
    testing::writeFile(file_, "");
  }
  std::chrono::nanoseconds before{};
  std::chrono::nanoseconds after{};

 private:
  const std::string file_;
};

TEST(Watchdog, SeesThatAForcedQuitDoesNotComeThrough) {
  for (const Trigger trigger : {Trigger::lock, Trigger::batch}) {
    const HostFixture host;
    host.install("Good", "ostrel_dns.bundle");
    testing::FastClock clock(900);
    testing::RecordingLog log;
    const ScopedOverride<Clock> clockOverride(clock);
    const ScopedOverride<SystemLog> logOverride(log);
    StuckManager manager(host / "go");
    hang(manager, trigger, host / "go");
    EXPECT_GE(manager.after - manager.before, std::chrono::seconds(31));
    EXPECT_EQ(manager.longestOverrun().count(), 0) << "the wait is over";
  }
}

/// With a clock that makes 15 minutes a second. For a process of its own.
void hangForEver(Trigger trigger, bool crash) {
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  signal(SIGSEGV, SIG_DFL);  // also under a sanitizer that would catch it
  const HostFixture host;
  host.install("Good", "ostrel_dns.bundle");
  testing::FastClock clock(900);
  ErrorStreamLog log;
  const ScopedOverride<Clock> clockOverride(clock);
  const ScopedOverride<SystemLog> logOverride(log);
  BundleManager manager;
  manager.setCrashOnHangTimeout(crash);
  hang(manager, trigger, host / "never");
}

TEST(WatchdogDeathTest, EndsTheProcessInEitherMannerOnEitherTrigger) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto lockLines = AllOf(
      ContainsRegex("<5> com\\.brantle\\.message\\.domain=com\\.brantle\\.ostreld\\.deadlock;"
                    "com\\.brantle\\.message\\.result=noop;com\\.brantle\\.message\\.value=[0-9]+;"
                    "com\\.brantle\\.message\\.value1=[0-9]+;com\\.brantle\\.message\\.value2=[0-9]+;"
                    "com\\.brantle\\.message\\.signature=ostreld: ostrel_dns detected deadlock;requests = "),
      ContainsRegex("<4> \\[[0-9]+\\] ostrel_dns has waited 10 seconds for its context, which ostrel_dns waitForFile "
                    "had last, begun"),
      ContainsRegex("<5> \\[[0-9]+\\] error in getAndLockContext: flock\\(ostrel_dns\\) FATAL time out\n"
                    "<5> \\[[0-9]+\\] process will force-quit to avoid deadlock\n"),
      Not(HasSubstr("never")));
  const auto batchLines = ContainsRegex("<5> \\[[0-9]+\\] Batch request timeout\\.  Killing ostreld\\.\n");
  EXPECT_EXIT(hangForEver(Trigger::lock, false), ::testing::ExitedWithCode(1), lockLines);
  EXPECT_EXIT(hangForEver(Trigger::lock, true), ::testing::KilledBySignal(SIGSEGV), lockLines);
  EXPECT_EXIT(hangForEver(Trigger::batch, false), ::testing::ExitedWithCode(1), batchLines);
  EXPECT_EXIT(hangForEver(Trigger::batch, true), ::testing::KilledBySignal(SIGSEGV), batchLines);
}

}  // namespace
}  // namespace ostrel
