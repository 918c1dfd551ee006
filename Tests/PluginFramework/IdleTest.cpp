// Idle processing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "HostFixture.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel {
namespace {

using ::testing::ElementsAre;
using testing::HostFixture;
using ::testing::IsEmpty;
using testing::logLine;

PlistValue command(const char* name) { return PlistValue::dictionaryOf({{"command", name}}); }

/// The counts that a module was given so far.
std::vector<std::int64_t> counts(BundleManager& manager, const char* module) {
  const PlistValue given = manager.doCommand(command("getCounts"), module, nullptr).get("counts");
  std::vector<std::int64_t> numbers;
  for (const PlistValue& number : given.elements()) numbers.push_back(number.int64Value());
  return numbers;
}

TEST(Idle, HandsCountsToEveryModule) {
  const HostFixture host;
  for (const char* name : {"one.bundle", "two.bundle"}) host.install("Good", name);
  BundleManager manager;
  for (const char* module : {"one", "two"}) manager.doCommand(command("getState"), module, "alice");
  manager.doIdle();
  manager.setSleepMode(true);
  manager.doIdle();
  manager.doCommand(command("getState"), "two", "alice");
  manager.doIdle("two");
  manager.setSleepMode(false);
  manager.doIdle();
  const auto one = counts(manager, "one");
  ASSERT_EQ(one.size(), 2U);
  EXPECT_EQ(one[1], one[0] + 1) << "sleep mode counts nothing";
  const auto two = counts(manager, "two");
  ASSERT_EQ(two.size(), 3U);
  EXPECT_EQ(two[0], one[0]);
  EXPECT_EQ(two[2], one[1]) << "a single call has a count of its own";
  manager.doIdle("two");
  EXPECT_EQ(counts(manager, "two")[3], two[1] + 1);
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U);

  const HostFixture elsewhere;
  elsewhere.install("Good", "one.bundle");
  BundleManager other;
  other.doIdle();
  EXPECT_THAT(counts(other, "one"), ElementsAre(one[1] + 1)) << "the count is the process's";
}

TEST(Idle, LogsWhatAHandlerThrowsAndGoesOn) {
  const HostFixture host;
  for (const char* name : {"one.bundle", "two.bundle"}) host.install("Good", name);
  BundleManager manager;
  for (const char* module : {"one", "two"}) manager.doCommand(command("failWhenIdle"), module, nullptr);
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  manager.doIdle();
  auto lines = log.lines();
  std::ranges::sort(lines);
  EXPECT_THAT(lines, ElementsAre(logLine("Exception during idle processing: idle hands for module one"),
                                 logLine("Exception during idle processing: idle hands for module two")));
  manager.doIdle("two");
  EXPECT_EQ(log.lines().back(), logLine("Exception in doIdle (two): idle hands"));
  EXPECT_EQ(counts(manager, "two").size(), 2U) << "the contexts are written back and free again";
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U);
}

TEST(Idle, APassEndsAtTheFirstContextThatCannotBeHad) {
  const HostFixture host;
  for (const char* name : {"one.bundle", "two.bundle"}) {
    host.install("Good", name);
    std::filesystem::create_directory(host.lockFile(std::filesystem::path(name).stem().string()));
  }
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  BundleManager manager;
  manager.doIdle();
  EXPECT_EQ(log.lines().size(), 1U) << "only the first is tried";
  manager.doIdle("one");
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U);
}

TEST(Idle, TellsWhatItDoesWhenAsked) {
  const HostFixture host;
  host.install("Good", "one.bundle");
  testing::writeFile(host / "var/tmp/ostrel_plugin_debug", "");
  BundleManager manager;
  manager.doIdle();
  const auto count = counts(manager, "one").back() + 1;
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  manager.doIdle();
  manager.doIdle("one");
  manager.doIdle("absent");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("Starting idle processing: count = " + std::to_string(count)),
                                       logLine("    Processing idle for one"), logLine("Done with idle processing"),
                                       logLine("Starting idle processing"), logLine("starting request for module one"),
                                       logLine("finished request for module one"), logLine("Starting idle processing"),
                                       logLine("starting request for module absent"),
                                       logLine("finished request for module absent")));
}

TEST(Idle, RunsBesideRequests) {
  const HostFixture host;
  for (const char* name : {"one.bundle", "two.bundle"}) host.install("Good", name);
  BundleManager manager;
  {
    std::vector<std::jthread> threads;
    for (const char* module : {"one", "two"}) {
      threads.emplace_back([&manager, module] {
        for (int i = 0; i < 20; ++i) manager.doIdle(module);
      });
      threads.emplace_back([&manager] {
        for (int i = 0; i < 20; ++i) manager.doIdle();
      });
      threads.emplace_back([&manager, module] {
        for (int i = 0; i < 20; ++i) manager.doCommand(command("count"), module, nullptr);
      });
    }
  }
  EXPECT_EQ(counts(manager, "one").size(), 60U);
  EXPECT_EQ(manager.doCommand(command("count"), "two", nullptr).get("count"), PlistValue(21));
  EXPECT_EQ(manager.CopyOutstandingRequests().count(), 0U);
}

}  // namespace
}  // namespace ostrel
