// Batch requests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "HostFixture.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using testing::HostFixture;
using testing::logLine;
using testing::WatchedManager;

PlistValue command(const char* name) { return PlistValue::dictionaryOf({{"command", name}}); }
PlistValue waitFor(const std::string& file) {
  return PlistValue::dictionaryOf({{"command", "waitForFile"}, {"file", file}});
}
PlistValue member(const PlistValue& name, const PlistValue& request) {
  PlistValue made = PlistValue::mutableDictionaryOf({{"request", request}});
  if (!name.isNull()) made.set("name", name);
  return made;
}
PlistValue batch(std::initializer_list<PlistValue> members, bool asDictionary = false) {
  return PlistValue::dictionaryOf(
      {{"requestsArray", PlistValue::arrayOf(members)}, {"sendResponsesAsDictionary", asDictionary}});
}
PlistValue error(const char* code) { return PlistValue::dictionaryOf({{"error", code}}); }
PlistValue responses(std::initializer_list<PlistValue> elements) {
  return PlistValue::dictionaryOf({{"responsesArray", PlistValue::arrayOf(elements)}});
}
std::ptrdiff_t threadsNow() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}
template <class Condition>
bool soon(Condition condition) {
  for (int i = 0; i < 20'000 && !condition(); ++i) std::this_thread::sleep_for(1ms);
  return condition();
}

/// A host with the modules "one" and "two".
struct Batch : ::testing::Test {
  Batch() {
    for (const char* name : {"one.bundle", "two.bundle"}) host.install("Good", name);
  }
  HostFixture host;
};

TEST_F(Batch, AnswersInTheShapeThatWasAskedFor) {
  BundleManager manager;
  const PlistValue count = member("one", command("count"));
  const PlistValue throwsNull = member("one", PlistValue::dictionaryOf({{"command", "fail"}, {"kind", "null"}}));
  const struct {
    PlistValue request;
    PlistValue answer;
  } cases[] = {
      {batch({}), responses({})},
      {batch({}, true), PlistValue::dictionaryOf({})},
      {PlistValue::dictionaryOf({{"requestsArray", PlistValue::arrayOf({})}}), responses({})},
      {PlistValue::dictionaryOf({}), nullptr},
      {PlistValue::dictionaryOf({{"requestsArray", "count"}}), nullptr},
      {nullptr, nullptr},
      {batch({"count"}), nullptr},
      {batch({count}),
       responses({PlistValue::dictionaryOf(
           {{"response", PlistValue::dictionaryOf({{"count", 1}})}, {"name", "one"}, {"command", "count"}})})},
      {batch({member(nullptr, command("count"))}),
       responses({PlistValue::dictionaryOf({{"response", error("CANNOT_LOAD_BUNDLE_ERR")}})})},
      {batch({member("one", nullptr)}),
       responses({PlistValue::dictionaryOf({{"response", error("UNEXPECTED_COMMAND")}, {"name", "one"}})})},
      {batch({throwsNull}), responses({PlistValue::dictionaryOf({})})},
      {batch({throwsNull, member(7, command("count")), member("one", nullptr)}, true), PlistValue::dictionaryOf({})},
      {batch({member("absent", command("x")), member("two", command("count"))}, true),
       PlistValue::dictionaryOf(
           {{"absent", PlistValue::dictionaryOf({{"x", error("CANNOT_LOAD_BUNDLE_ERR")}})},
            {"two", PlistValue::dictionaryOf({{"count", PlistValue::dictionaryOf({{"count", 1}})}})}})},
  };
  for (const auto& [request, answer] : cases) {
    EXPECT_EQ(manager.doBatchCommand(request, "alice"), answer) << request.description();
  }
  const PlistValue twice = manager.doBatchCommand(batch({count, count}, true), nullptr);
  EXPECT_EQ(twice.get("one").get("count").get("count"), PlistValue(3)) << "the later-finishing one wins";
  const PlistValue who = manager.doBatchCommand(batch({member("two", command("getState"))}), "alice");
  EXPECT_EQ(who.get("responsesArray").at(0).get("response").get("user"), PlistValue("alice"));
}

TEST_F(Batch, RunsSideBySideAndAnswersInTheOrderOfCompletion) {
  BundleManager manager;
  std::atomic<int> told = 0;
  auto answer = std::async(std::launch::async, [&] {
    return manager.doBatchCommand(
        batch({member("one", waitFor(host / "one")), member("two", waitFor(host / "two"))}), nullptr,
        [&](const BundleManager::BatchItem& item, const PlistValue& response, std::chrono::nanoseconds) {
          EXPECT_EQ(item.user, PlistValue());
          EXPECT_FALSE(response.isNull());
          ++told;
        });
  });
  testing::writeFile(host / "two", "");
  EXPECT_TRUE(soon([&] { return told == 1; }));
  testing::writeFile(host / "one", "");
  const PlistValue elements = answer.get().get("responsesArray");
  ASSERT_EQ(elements.count(), 2U);
  EXPECT_EQ(elements.at(0).get("name"), PlistValue("two"));
  EXPECT_EQ(elements.at(1).get("name"), PlistValue("one"));
}

TEST_F(Batch, AMemberThatIsNoDictionaryEndsItAtOnceAndTheOthersRunOn) {
  BundleManager manager;
  for (const bool asDictionary : {false, true}) {
    const PlistValue answer = manager.doBatchCommand(
        batch({member("one", waitFor(host / "go")), member("two", waitFor(host / "go")), 3}, asDictionary), nullptr);
    EXPECT_TRUE(answer.isNull());
  }
  EXPECT_TRUE(soon([&] { return manager.CopyOutstandingRequests().count() == 4; }));
  testing::writeFile(host / "go", "");
  EXPECT_TRUE(soon([&] { return manager.CopyOutstandingRequests().count() == 0; }));
}

TEST_F(Batch, AFailedThreadCountsAsAHang) {
  testing::FakeClock clock;
  testing::RecordingLog log;
  const ScopedOverride<Clock> clockOverride(clock);
  const ScopedOverride<SystemLog> logOverride(log);
  for (const bool isVerbose : {false, true}) {
    if (isVerbose) testing::writeFile(host / "var/tmp/ostrel_plugin_debug", "");
    WatchedManager manager;
    const PlistValue request = command("count");
    auto answer = std::async(std::launch::async, [&] {
      return manager.doBatchCommand(batch({member("one", request), member("two", request)}), nullptr,
                                    [](const BundleManager::BatchItem& item, const PlistValue&, auto) {
                                      if (item.module == PlistValue("one")) throw std::runtime_error("no paper");
                                    });
    });
    EXPECT_TRUE(soon([&] { return log.holds(logLine("--request was " + request.description())); }));
    std::this_thread::sleep_for(100ms);  // until the batch waits
    clock.sleepFor(899s);
    EXPECT_EQ(answer.wait_for(50ms), std::future_status::timeout) << "waits for 900 seconds";
    EXPECT_EQ(manager.quits, 0);
    EXPECT_TRUE(soon([&] {
      clock.sleepFor(1s);
      return manager.quits == 1;
    }));
    EXPECT_EQ(answer.get().get("responsesArray").count(), 1U) << "should the process live on";
    EXPECT_TRUE(log.holds(logLine("Exception in doBatchCommand (module = one): no paper")));
    EXPECT_TRUE(log.holds(logLine("Batch request timeout.  Killing ostreld.")));
    EXPECT_EQ(log.holds(logLine("outstanding requests are: " + PlistValue::arrayOf({}).description())), isVerbose);
  }
}

TEST_F(Batch, RunsOneAfterTheOtherWhereThereAreNoThreads) {
  pthread_attr_t usual;
  pthread_attr_t impossible;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(pthread_getattr_default_np(&impossible), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 46), 0);
  BundleManager manager;
  ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
  const auto begun = std::chrono::steady_clock::now();
  const PlistValue answer =
      manager.doBatchCommand(batch({member("one", command("count")), member("one", command("count"))}), nullptr);
  pthread_setattr_default_np(&usual);
  const PlistValue elements = answer.get("responsesArray");
  ASSERT_EQ(elements.count(), 2U);
  EXPECT_EQ(elements.at(1).get("response").get("count"), PlistValue(2));
  EXPECT_LT(std::chrono::steady_clock::now() - begun, 5s) << "the caller's thread does not linger";
}

TEST_F(Batch, ItsThreadsLingerForFiveSecondsButHoldUpNoStop) {
  testing::FakeClock clock;
  const ScopedOverride<Clock> override(clock);
  std::thread([] {}).join();  // the thread sanitizer begins one of its own with the first
  const std::ptrdiff_t before = threadsNow();
  BundleManager manager;
  const PlistValue request = batch({member("one", command("count")), member("two", command("count"))});
  manager.doBatchCommand(request, nullptr);
  clock.sleepFor(4s);
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(threadsNow(), before + 2);
  clock.sleepFor(6s);
  EXPECT_TRUE(soon([&] { return threadsNow() == before; }));

  for (int i = 0; i < 40; ++i) manager.doBatchCommand(request, nullptr);
  EXPECT_TRUE(soon([&] { return threadsNow() <= before + 64; })) << "many batches do not pile up threads";
  EXPECT_TRUE(manager.finishBackgroundWork(20s)) << "though no clock moves";
  manager.doBatchCommand(request, nullptr);
  EXPECT_TRUE(soon([&] { return threadsNow() == before; }));
}

}  // namespace
}  // namespace ostrel
