// The sample module in its host.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "Containers/PlistValue.h"
#include "Platform/FileDescriptor.h"
#include "Platform/HostRoot.h"
#include "PluginFramework/BundleManager.h"
#include "PluginFramework/PluginRequestHandler.h"
#include "Support/SysTree.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

class SampleHandlerTest : public ::testing::Test {
 protected:
  SampleHandlerTest() {
    const std::filesystem::path bundles = folder_ / "usr/share/ostreld/bundles";
    std::filesystem::create_directories(bundles);
    std::filesystem::create_directories(folder_ / "private/var/ostreld");
    std::filesystem::create_directories(folder_ / "var/ostreld");
    std::filesystem::copy_file(OSTREL_SAMPLE_BUNDLE, bundles / "ostrel_sample.bundle");
    std::filesystem::permissions(bundles / "ostrel_sample.bundle", std::filesystem::perms(0755));
    host_ = std::make_unique<BundleManager>();
  }
  ~SampleHandlerTest() override { setState("STOP"); }

  PlistValue send(const PlistValue& request) { return host_->doCommand(request, "ostrel_sample", "alice"); }
  PlistValue setState(const char* state) {
    return send(PlistValue::dictionaryOf({{"command", "setState"}, {"state", state}}));
  }
  PlistValue getState() { return send(PlistValue::dictionaryOf({{"command", "getState"}})); }
  PlistValue setting(const PlistValue& name, const PlistValue& value) {
    return send(PlistValue::dictionaryOf({{"command", "setSetting"}, {"name", name}, {"value", value}}));
  }
  /// Forgets everything in memory, as a restart does.
  void restart() { host_ = std::make_unique<BundleManager>(); }
  std::string contextFile() const { return folder_ / "private/var/ostreld/ostrel_sample.lock"; }

  testing::TemporaryFolder folder_;
  ScopedHostRoot root_{folder_.path()};
  std::unique_ptr<BundleManager> host_;
};

bool isInProcessTable(pid_t pid) { return std::filesystem::exists("/proc/" + std::to_string(pid)); }

/// The service writes its file now and then: seen when it is running, whatever the module says.
bool writesWithin(const std::string& file, std::chrono::milliseconds limit) {
  std::filesystem::remove(file);
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (std::filesystem::exists(file)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

TEST_F(SampleHandlerTest, RunsARealServiceThatInheritsNothing) {
  const std::string beat = folder_ / "var/ostreld/sample_heartbeat";
  EXPECT_EQ(getState().get("state").stringValue(), "STOPPED");
  EXPECT_EQ(setState("STOP").get("state").stringValue(), "STOPPED");
  const PlistValue running = setState("START");
  ASSERT_EQ(running.get("state").stringValue(), "RUNNING");
  const auto pid = static_cast<pid_t>(running.get("servicePid").int64Value());
  EXPECT_TRUE(writesWithin(beat, std::chrono::seconds(20)));
  EXPECT_EQ(setState("START").get("servicePid").int64Value(), pid);  // one is enough

  // Nothing of this process but the null device: the lock file would stay locked for as long as the service runs.
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code closedMeanwhile;
    const std::string target = std::filesystem::read_symlink(entry.path(), closedMeanwhile);
    EXPECT_TRUE(closedMeanwhile || target == "/dev/null" || target == beat) << target;
  }

  const auto restarted = static_cast<pid_t>(setState("RESTART").get("servicePid").int64Value());
  EXPECT_NE(restarted, pid);
  restart();
  EXPECT_EQ(getState().get("servicePid").int64Value(), restarted);
  EXPECT_EQ(setState("STOP").get("state").stringValue(), "STOPPED");
  EXPECT_FALSE(writesWithin(beat, std::chrono::milliseconds(2500)));
  // Its end is collected: nothing of it stays in the process table.
  for (int i = 0; i < 1000 && (isInProcessTable(pid) || isInProcessTable(restarted)); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_FALSE(isInProcessTable(pid));
  EXPECT_FALSE(isInProcessTable(restarted));
}

TEST_F(SampleHandlerTest, NeverStopsAProcessThatIsNotItsService) {
  // A context from before a reboot: the id is another process's now. Here it is this test's.
  int descriptor = -1;
  bool timedOut = false;
  PlistValue context = host_->getAndLockContext("ostrel_sample", &descriptor, &timedOut);
  context.set("servicePid", getpid());
  context.set("serviceStarted", 1);
  context.set("contextDirty", true);
  host_->setAndUnlockContext(context, "ostrel_sample", &descriptor);
  EXPECT_EQ(getState().get("state").stringValue(), "STOPPED");
  EXPECT_EQ(setState("STOP").get("state").stringValue(), "STOPPED");
}

TEST_F(SampleHandlerTest, KeepsSettings) {
  const PlistValue nested = PlistValue::dictionaryOf({{"a", PlistValue::arrayOf({1, "two", 3.5})}});
  EXPECT_EQ(setting("nested", nested), PlistValue::dictionaryOf({{"name", "nested"}, {"value", nested}}));
  EXPECT_EQ(setting("nested", nested), PlistValue::dictionaryOf({{"name", "nested"}, {"value", nested}}));
  restart();
  const PlistValue get = PlistValue::dictionaryOf({{"command", "getSetting"}, {"name", "nested"}});
  PlistValue answer = send(get);
  EXPECT_EQ(answer.get("value"), nested);
  answer.get("value").set("a", "changed");  // a response is the caller's: the context does not change with it
  EXPECT_EQ(send(get).get("value"), nested);

  const PlistValue invalid = PlistValue::dictionaryOf({{"error", "INVALID_ARG_ERR"}});
  EXPECT_EQ(setting(5, "x"), invalid);
  EXPECT_EQ(setting("x", nullptr), invalid);
  EXPECT_EQ(send(PlistValue::dictionaryOf({{"command", "getSetting"}})), invalid);
  EXPECT_EQ(send(PlistValue::dictionaryOf({{"command", "getSetting"}, {"name", "none"}})),
            PlistValue::dictionaryOf({{"name", "none"}}));
  for (int i = 1; i < 100; ++i) EXPECT_NE(setting("s" + std::to_string(i), i), invalid);
  EXPECT_EQ(setting("one too many", 1), invalid);
  EXPECT_NE(setting("nested", 1), invalid);
}

TEST_F(SampleHandlerTest, TakesAHistoryOfTheMachineWhenIdle) {
  const auto history = [this](const PlistValue& period, const PlistValue& filter) {
    PlistValue request = PlistValue::mutableDictionaryOf({{"command", "getHistory"}});
    request.set("period", period);
    request.set("filter", filter);
    return send(request);
  };
  const auto idle = [this] {
    int descriptor = -1;
    bool timedOut = false;
    const PlistValue context = host_->getAndLockContext("ostrel_sample", &descriptor, &timedOut);
    const char* const arguments[] = {"", "idle", "0", nullptr};
    EXPECT_EQ(host_->getPrincipalClass("ostrel_sample")->doProcessArgsWithArgc(3, arguments, context, &descriptor), 0);
    host_->setAndUnlockContext(context, "ostrel_sample", &descriptor);
  };
  EXPECT_EQ(history(nullptr, nullptr).get("samples"), PlistValue::arrayOf({}));
  idle();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));  // three of the processors' clock ticks
  idle();
  restart();
  const PlistValue answer = history(nullptr, nullptr);
  ASSERT_EQ(answer.get("samples").count(), 2U) << "kept on the disk";
  EXPECT_EQ(answer.get("values").count(), 3U);
  const PlistValue newest = answer.get("samples").at(0);
  EXPECT_LE(newest.get("v1").uint64Value(), 1000U);
  EXPECT_TRUE(newest.contains("v1") && newest.contains("v2"));
  EXPECT_FALSE(answer.get("samples").at(1).contains("v1")) << "a share needs two readings";
  EXPECT_GT(newest.get("v3").uint64Value(), 1U << 20);
  EXPECT_EQ(history(3'600, "v3").get("samples").at(0).count(), 2U);
  EXPECT_EQ(history(-1, nullptr).get("samples").count(), 0U);
  const PlistValue invalid = PlistValue::dictionaryOf({{"error", "INVALID_ARG_ERR"}});
  EXPECT_EQ(history("hour", nullptr), invalid);
  EXPECT_EQ(history(60, 1), invalid);
}

/// Volumes one of which does not respond until it is let go, as a network volume whose server is gone.
class HangingVolumes final : public testing::FakeVolumes {
 public:
  std::optional<Volume> volumeOf(const std::string& path) override {
    if (path == "/net") {
      ++asked_;
      while (!released_) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return FakeVolumes::volumeOf(path);
  }
  void release() { released_ = true; }
  int asked() const { return asked_; }

 private:
  std::atomic<bool> released_{false};
  std::atomic<int> asked_{0};
};

TEST_F(SampleHandlerTest, ReportsTheHostAndIsNotHeldUpByAVolume) {
  // Outlives the test: a thread of the module may still be in it.
  static HangingVolumes volumes;
  volumes.devices = {
      {"/", "overlay"}, {"/disk", "/dev/sda1"}, {"/again", "/dev/sda1"}, {"/net", "/dev/nothing"}, {"/run", "tmpfs"}};
  const ScopedOverride<Volumes> scope(volumes);
  testing::writeFile(folder_ / "Library/Preferences/com.brantle.tavrond.plist",
                     "<plist version=\"1.0\"><dict><key>PublicNodes</key><array><string>a</string></array>"
                     "<key>FailoverRole</key><string>BACKUP</string></dict></plist>");
  const PlistValue getHost = PlistValue::dictionaryOf({{"command", "getHost"}});
  const auto column = [](const PlistValue& host, const char* key) {
    std::vector<std::string> values;
    const PlistValue reports = host.get("volumes");
    for (const PlistValue& each : reports.elements()) values.push_back(each.get(key).description());
    return values;
  };
  const auto start = std::chrono::steady_clock::now();
  PlistValue host = send(getHost);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  EXPECT_EQ(host.get("failoverRole").stringValue(), "backup");
  EXPECT_EQ(host.get("failoverState"), PlistValue(2));
  EXPECT_TRUE(host.get("interfaces").get("lo").get("hasIPV4").boolValue());
  EXPECT_EQ(column(host, "path"), (std::vector<std::string>{"/", "/again", "/net"})) << "each device once";
  const std::vector<std::string> expected{"no disk of this machine", "no disk of this machine", "no answer"};
  for (int i = 0; i < 10 && column(host, "fullSync") != expected; ++i) host = send(getHost);  // a machine may be busy
  EXPECT_EQ(column(host, "fullSync"), expected);

  send(getHost);
  EXPECT_EQ(volumes.asked(), 1) << "one thread waits for it, not one for each request";
  volumes.release();
  for (int i = 0; i < 20 && column(host, "fullSync")[2] == "no answer"; ++i) host = send(getHost);
  EXPECT_EQ(column(host, "fullSync")[2], "no disk of this machine");
}

TEST_F(SampleHandlerTest, TailsOnlyTheLogsThatItNames) {
  const PlistValue paths = send(PlistValue::dictionaryOf({{"command", "getLogPaths"}}));
  const auto tail = [this](const char* key, const PlistValue& value) {
    return send(PlistValue::dictionaryOf({{"command", "tailFile"}, {key, value}, {"offset", 0}, {"amount", 200}}));
  };
  for (const PlistEntry& log : paths.entries()) {
    EXPECT_EQ(tail("identifier", log.key).get("path"), log.value);
    EXPECT_EQ(tail("path", log.value).get("path"), log.value);
  }
  EXPECT_EQ(tail("path", "/etc/passwd").get("error").stringValue(), "ILLEGAL_PATH_REQUESTED");
  EXPECT_EQ(tail("identifier", "none").get("error").stringValue(), "ILLEGAL_LOG_IDENTIFIER_REQUESTED");
}

}  // namespace
}  // namespace ostrel
