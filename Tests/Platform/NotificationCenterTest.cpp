#include "Platform/NotificationCenter.h"

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>

namespace ostrel {
namespace {

using ::testing::ElementsAre;

TEST(NotificationCenter, CallsThoseWhoseNameAndObjectMatchInOrder) {
  NotificationCenter center;
  std::vector<std::string> calls;
  const int me = 0;
  const auto note = [&](std::string tag) { return [&calls, tag](const Notification&) { calls.push_back(tag); }; };
  center.addObserver(&me, "changed", note("changed"));
  center.addObserver(&me, "", note("any"));
  center.addObserver(&me, "changed", note("changed by web"), "web");
  center.addObserver(&me, "other", note("other"));
  center.addObserver(&me, "changed", note("changed again"));

  center.postNotification({.name = "changed", .object = "web"});
  EXPECT_THAT(calls, ElementsAre("changed", "any", "changed by web", "changed again"));
  calls.clear();
  center.postNotification({.name = "changed"});
  EXPECT_THAT(calls, ElementsAre("changed", "any", "changed again"));

  calls.clear();
  center.removeObserver(&me, "changed");
  center.postNotification({.name = "changed", .object = "web"});
  EXPECT_THAT(calls, ElementsAre("any"));
  center.removeObserver(&me);
  center.postNotification({.name = "other"});
  EXPECT_THAT(calls, ElementsAre("any"));
}

TEST(NotificationCenter, CarriesEverythingOnThePostingThread) {
  NotificationCenter center;
  const auto payload = std::make_shared<int>(7);
  Notification seen;
  std::thread::id thread;
  center.addObserver(&seen, "n", [&](const Notification& notification) {
    seen = notification;
    thread = std::this_thread::get_id();
  });
  center.postNotification({"n", "sender", PlistValue::dictionaryOf({{"k", 1}}), payload});
  EXPECT_EQ(seen.object, PlistValue("sender"));
  EXPECT_EQ(seen.userInfo.get("k").int64Value(), 1);
  EXPECT_EQ(seen.payload, payload);
  EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST(NotificationCenter, AnExceptionReachesThePosterAndLeavesTheCentreUsable) {
  NotificationCenter center;
  int after = 0;
  const int thrower = 0;
  center.addObserver(&thrower, "n", [](const Notification&) { throw std::runtime_error("observer failed"); });
  center.addObserver(&after, "n", [&](const Notification&) { ++after; });
  EXPECT_THROW(center.postNotification({.name = "n"}), std::runtime_error);
  EXPECT_EQ(after, 0);
  center.removeObserver(&thrower);  // would wait for ever if the call still counted as running
  center.postNotification({.name = "n"});
  EXPECT_EQ(after, 1);
}

TEST(NotificationCenter, ObserversMayChangeTheCentreFromInside) {
  NotificationCenter center;
  const int self = 0;
  const int later = 0;
  int selfCalls = 0;
  int laterCalls = 0;
  center.addObserver(&self, "n", [&](const Notification&) {
    ++selfCalls;
    center.removeObserver(&self);
    center.removeObserver(&later);
    center.addObserver(&later, "n", [&](const Notification&) { laterCalls += 100; });
    center.postNotification({.name = "unheard"});
  });
  center.addObserver(&later, "n", [&](const Notification&) { ++laterCalls; });
  center.postNotification({.name = "n"});
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(laterCalls, 0) << "removed before its turn, and the new registration came after the post";
  center.postNotification({.name = "n"});
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(laterCalls, 100);
}

// The callback uses what the remover destroys: the thread and address sanitizers see an early return.
TEST(NotificationCenter, RemovalWaitsForACallOnAnotherThread) {
  NotificationCenter center;
  auto owned = std::make_unique<std::string>("alive");
  std::promise<void> entered;
  std::promise<void> removing;
  auto removalBegins = removing.get_future();
  center.addObserver(&center, "n", [&](const Notification&) {
    entered.set_value();
    removalBegins.wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    *owned += " still";
  });
  std::thread poster([&] { center.postNotification({.name = "n"}); });
  entered.get_future().wait();
  removing.set_value();
  center.removeObserver(&center);
  EXPECT_EQ(*owned, "alive still");
  owned.reset();
  poster.join();
}

// Two threads in callbacks of one observer that both remove it: neither may wait for the other.
TEST(NotificationCenter, AnObserverThatRemovesItselfOnTwoThreadsDoesNotHang) {
  NotificationCenter center;
  std::atomic<int> inside{0};
  center.addObserver(&center, "n", [&](const Notification&) {
    ++inside;
    while (inside < 2) std::this_thread::yield();
    center.removeObserver(&center);
  });
  std::thread other([&] { center.postNotification({.name = "n"}); });
  center.postNotification({.name = "n"});
  other.join();
  EXPECT_EQ(inside, 2);
}

TEST(NotificationCenter, ManyThreadsMayPostAddAndRemove) {
  NotificationCenter center;
  std::atomic<bool> done{false};
  std::thread posters[2];
  for (std::thread& poster : posters) {
    poster = std::thread([&] {
      while (!done) center.postNotification({.name = "n"});
    });
  }
  for (int i = 0; i < 300; ++i) {
    const auto counter = std::make_unique<std::atomic<int>>(0);
    center.addObserver(counter.get(), "n", [&counter](const Notification&) { ++*counter; });
    if (i % 10 == 0)
      while (*counter == 0) std::this_thread::yield();
    center.removeObserver(counter.get());
  }
  done = true;
  for (std::thread& poster : posters) poster.join();
}

}  // namespace
}  // namespace ostrel
