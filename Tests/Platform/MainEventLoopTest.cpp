#include "Platform/MainEventLoop.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace ostrel {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

MainEventLoop& loop() { return MainEventLoop::shared(); }

bool isReadable(int descriptor, int milliseconds) {
  pollfd watched{descriptor, POLLIN, 0};
  return poll(&watched, 1, milliseconds) == 1;
}

TEST(MainEventLoop, CallsInTheOrderOfTimesAndNeverEarly) {
  std::vector<std::string> calls;
  const auto start = std::chrono::steady_clock::now();
  auto calledAfter = 0ns;
  loop().callAfter(60ms, [&] {
    calls.push_back("late");
    calledAfter = std::chrono::steady_clock::now() - start;
    loop().stop();
  });
  loop().callAfter(0ms, [&] { calls.push_back("first"); });
  loop().callAfter(-5s, [&] { calls.push_back("second"); });
  loop().callAfter(std::chrono::nanoseconds::max(), [&] { calls.push_back("never"); });
  EXPECT_TRUE(calls.empty());
  loop().run();
  EXPECT_THAT(calls, ElementsAre("first", "second", "late"));
  EXPECT_GE(calledAfter, 60ms);
}

TEST(MainEventLoop, RunsForAFixedTimeUnlessStopped) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop().runFor(30ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);

  std::thread stopper([] { loop().stop(); });
  EXPECT_TRUE(loop().runFor(60s));
  stopper.join();

  loop().stop();  // a stop that comes before the run is not lost
  EXPECT_TRUE(loop().runFor(60s));
}

TEST(MainEventLoop, ANestedRunEndsWithoutEndingTheOuterOne) {
  std::vector<std::string> calls;
  loop().callAfter(0ms, [&] {
    loop().callAfter(0ms, [&] { calls.push_back("inside"); });
    calls.push_back(loop().runFor(20ms) ? "stopped" : "inner ended");
  });
  EXPECT_FALSE(loop().runFor(60ms));
  EXPECT_THAT(calls, ElementsAre("inside", "inner ended"));
}

TEST(MainEventLoop, HandsWorkOverAndWaits) {
  EXPECT_TRUE(loop().isMainThread());
  std::thread::id ranOn;
  std::string caught;
  bool workerIsMain = true;
  std::thread worker([&] {
    workerIsMain = loop().isMainThread();
    loop().runOnMainThreadAndWait([&] { ranOn = std::this_thread::get_id(); });
    try {
      loop().runOnMainThreadAndWait([] { throw std::runtime_error("from the main thread"); });
    } catch (const std::runtime_error& error) {
      caught = error.what();
    }
    loop().stop();
  });
  loop().run();
  worker.join();
  EXPECT_FALSE(workerIsMain);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(caught, "from the main thread");

  bool ran = false;
  loop().runOnMainThreadAndWait([&] { ran = true; });  // here it must not wait for a loop that does not run
  EXPECT_TRUE(ran);
}

TEST(MainEventLoop, AWorkThatThrowsLeavesTheRestForTheNextRun) {
  bool ran = false;
  loop().callAfter(0ms, [] { throw std::runtime_error("work failed"); });
  loop().callAfter(0ms, [&] { ran = true; });
  EXPECT_THROW(loop().runFor(60s), std::runtime_error);
  EXPECT_FALSE(ran);
  EXPECT_EQ(loop().processPending(), 1U);
  EXPECT_TRUE(ran);
}

TEST(MainEventLoop, LivesInsideAnotherLoop) {
  EXPECT_FALSE(isReadable(loop().descriptor(), 0));
  int count = 0;
  std::thread worker([&] {
    loop().runOnMainThreadAndWait([&] {
      ++count;
      // Work that is added meanwhile is left for the next round, so that the other loop gets its turn.
      loop().callAfter(0ms, [&] { ++count; });
    });
  });
  ASSERT_TRUE(isReadable(loop().descriptor(), 10'000));
  EXPECT_EQ(loop().processPending(), 1U);
  worker.join();
  ASSERT_TRUE(isReadable(loop().descriptor(), 10'000));
  EXPECT_EQ(loop().processPending(), 1U);
  EXPECT_EQ(count, 2);
  EXPECT_FALSE(isReadable(loop().descriptor(), 0));
  loop().callAfter(30ms, [&] { ++count; });
  EXPECT_FALSE(isReadable(loop().descriptor(), 0));
  EXPECT_TRUE(isReadable(loop().descriptor(), 10'000));
  loop().processPending();
  EXPECT_EQ(count, 3);
}

TEST(MainEventLoop, AThreadCanClaimToBeTheMainOne) {
  std::thread claimer([] {
    loop().claimMainThread();
    EXPECT_TRUE(loop().isMainThread());
  });
  claimer.join();
  EXPECT_FALSE(loop().isMainThread());
  loop().claimMainThread();
  EXPECT_TRUE(loop().isMainThread());
}

TEST(MainEventLoop, AForkedChildHasALoopOfItsOwn) {
  bool called = false;
  loop().callAfter(20ms, [&] { called = true; });
  const pid_t child = fork();
  if (child == 0) {
    // The copy of the work runs, and what the child waits for is nothing to its parent.
    if (!isReadable(loop().descriptor(), 10'000)) _exit(1);
    loop().processPending();
    loop().callAfter(1h, [] {});
    _exit(called ? 0 : 2);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(called);
  EXPECT_TRUE(isReadable(loop().descriptor(), 10'000));
  loop().processPending();
  EXPECT_TRUE(called);
}

}  // namespace
}  // namespace ostrel
