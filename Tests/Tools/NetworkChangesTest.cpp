// Changes of the network on their way to the modules: in the daemon's class with fakes, and in a whole daemon within a
// network of its own.
#include "ostreld/NetworkChanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <future>

#include "Network/NetworkState.h"
#include "Platform/NetworkEvents.h"
#include "Support/FakeNetwork.h"
#include "Support/Fakes.h"
#include "Support/NetworkNamespace.h"
#include "Tools/DaemonProcess.h"

namespace ostrel {
namespace {

using std::chrono::milliseconds;
using testing::addWire;
using testing::DaemonProcess;
using testing::eventually;
using testing::inNetworkNamespace;
using testing::ip;

/// One interface, whose address a test changes while others read it.
class OneInterface final : public InterfaceAddresses {
 public:
  void set(const std::string& address, unsigned int flags = IFF_UP | IFF_RUNNING) {
    const MutexLock lock(mutex_);
    entries_ = {{"wire0", testing::addressOf(address), testing::addressOf("255.255.255.0"), flags}};
  }
  std::vector<InterfaceAddress> list() override {
    const MutexLock lock(mutex_);
    ++looks_;
    return entries_;
  }
  int looks() {
    const MutexLock lock(mutex_);
    return looks_;
  }

 private:
  Mutex mutex_;
  int looks_ OSTREL_GUARDED_BY(mutex_) = 0;
  std::vector<InterfaceAddress> entries_ OSTREL_GUARDED_BY(mutex_);
};

/// News as a test tells them.
class ToldEvents final : public NetworkEvents {
 public:
  /// Returns when the listener has taken it.
  void tell() {
    MutexLock lock(mutex_);
    ++told_;
    changed_.notifyAll();
    while (taken_ < told_) changed_.wait(mutex_);
  }
  std::unique_ptr<NetworkEventSource> open() override { return std::make_unique<Source>(*this); }

 private:
  class Source final : public NetworkEventSource {
   public:
    explicit Source(ToldEvents& of) : of_(of) {}
    Event wait() override {
      MutexLock lock(of_.mutex_);
      of_.taken_ = of_.given_;
      of_.changed_.notifyAll();
      while (!of_.hasEnded_ && of_.given_ == of_.told_) of_.changed_.wait(of_.mutex_);
      if (of_.hasEnded_) return Event::ended;
      of_.given_ = of_.told_;
      return Event::changed;
    }
    void end() override {
      const MutexLock lock(of_.mutex_);
      of_.hasEnded_ = true;
      of_.changed_.notifyAll();
    }

   private:
    ToldEvents& of_;
  };

  Mutex mutex_;
  Condition changed_;
  int told_ OSTREL_GUARDED_BY(mutex_) = 0;
  int given_ OSTREL_GUARDED_BY(mutex_) = 0;
  int taken_ OSTREL_GUARDED_BY(mutex_) = 0;  // recorded, and waited for the next one
  bool hasEnded_ OSTREL_GUARDED_BY(mutex_) = false;
};

/// A resolver that can be made to take for ever.
class SlowResolver final : public NameResolver {
 public:
  Resolution resolve(const std::string& host, const std::string& service, AddressFamily family) override {
    return known_.resolve(host, service, family);
  }
  std::optional<HostAndService> nameOf(const SocketAddress& address, NameForm form) override {
    if (form == NameForm::names && isSlow) {
      isAsked = true;
      answer.wait();
    }
    return known_.nameOf(address, NameForm::numeric);
  }
  std::atomic<bool> isSlow = false;
  std::atomic<bool> isAsked = false;
  std::shared_future<void> answer;

 private:
  testing::FakeResolver known_;
};

class NetworkChangesTest : public ::testing::Test {
 protected:
  NetworkChangesTest() {
    interfaces.set("192.0.2.1");
    NotificationCenter::defaultCenter().addObserver(this, networkChangedName, [this](const Notification& heard) {
      {
        const MutexLock lock(mutex);
        notifications.push_back(heard.userInfo);
      }
      if (whenHeard) whenHeard();
    });
    changes.emplace(true);
    EXPECT_TRUE(changes->isWatching());
    awaitLooks(2);  // what is there at the start: names and flags
  }
  ~NetworkChangesTest() override {
    changes.reset();
    NotificationCenter::defaultCenter().removeObserver(this);
  }

  void awaitLooks(int count) {
    ASSERT_TRUE(eventually([&] { return interfaces.looks() >= count; }));
  }
  std::vector<PlistValue> heard() {
    const MutexLock lock(mutex);
    return notifications;
  }
  bool hears(std::size_t count) {
    return eventually([&] { return heard().size() >= count && changes->posted() >= std::int64_t(count); });
  }
  static std::string address(const PlistValue& info, const char* state) {
    return std::string(info.get(state).at(0).get("ipAddress").stringValue());
  }

  OneInterface interfaces;
  ToldEvents events;
  testing::FakeClock clock;
  SlowResolver resolver;
  testing::FakeNetworkConfiguration configuration;
  testing::RecordingLog log;
  ScopedOverride<InterfaceAddresses> interfacesOverride{interfaces};
  ScopedOverride<NetworkEvents> eventsOverride{events};
  ScopedOverride<Clock> clockOverride{clock};
  ScopedOverride<NameResolver> resolverOverride{resolver};
  ScopedOverride<NetworkConfiguration> configurationOverride{configuration};
  ScopedOverride<SystemLog> logOverride{log};
  Mutex mutex;
  std::vector<PlistValue> notifications OSTREL_GUARDED_BY(mutex);
  std::function<void()> whenHeard;
  std::optional<NetworkChanges> changes;
};

TEST_F(NetworkChangesTest, ABurstIsToldOnceWhenItIsOver) {
  interfaces.set("192.0.2.2");
  events.tell();
  clock.sleepFor(milliseconds(900));
  interfaces.set("192.0.2.3");
  events.tell();
  clock.sleepFor(milliseconds(900));
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_TRUE(heard().empty()) << "a second of quiet has not passed";
  clock.sleepFor(milliseconds(100));
  ASSERT_TRUE(hears(1));
  EXPECT_EQ(address(heard()[0], "oldState"), "192.0.2.1");
  EXPECT_EQ(address(heard()[0], "newState"), "192.0.2.3");
  EXPECT_EQ(heard()[0].get("changes"), PlistValue::arrayOf({"wire0"}));
}

TEST_F(NetworkChangesTest, AnEndlessBurstIsToldAfterFiveSeconds) {
  whenHeard = [] { throw 7; };
  interfaces.set("192.0.2.2");
  for (int i = 0; i < 7; ++i) {
    events.tell();
    clock.sleepFor(milliseconds(700));
  }
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_TRUE(heard().empty());
  events.tell();
  clock.sleepFor(milliseconds(100));
  ASSERT_TRUE(hears(1));
}

TEST_F(NetworkChangesTest, NothingIsToldWhenAllIsAsItWas) {
  const int looks = interfaces.looks();
  interfaces.set("192.0.2.9");
  events.tell();
  interfaces.set("192.0.2.1");
  events.tell();
  clock.sleepFor(std::chrono::seconds(1));
  awaitLooks(looks + 2);
  interfaces.set("192.0.2.1", IFF_UP);  // no carrier
  events.tell();
  clock.sleepFor(std::chrono::seconds(1));
  ASSERT_TRUE(hears(1));
  EXPECT_EQ(address(heard()[0], "oldState"), "192.0.2.1");
  EXPECT_EQ(address(heard()[0], "newState"), "") << "disabled";
}

TEST_F(NetworkChangesTest, WhatHappensWhileModulesWorkIsToldAfterwards) {
  std::promise<void> done;
  std::shared_future<void> finished(done.get_future());
  whenHeard = [&] {
    finished.wait();
    if (heard().size() == 1) throw std::runtime_error("out of numbers");
  };
  interfaces.set("192.0.2.2");
  events.tell();
  clock.sleepFor(std::chrono::seconds(1));
  ASSERT_TRUE(eventually([&] { return heard().size() == 1; }));
  for (const char* next : {"192.0.2.3", "192.0.2.4"}) {
    interfaces.set(next);
    events.tell();  // is taken although a module works
    clock.sleepFor(std::chrono::seconds(11));
  }
  EXPECT_FALSE(changes->stop(milliseconds(1))) << "the module works still";
  done.set_value();
  EXPECT_TRUE(changes->stop(std::chrono::seconds(40)));
  EXPECT_EQ(heard().size(), 1U) << "nothing is told after the stop";
  EXPECT_THAT(log.lines(), ::testing::Contains(::testing::HasSubstr("told: out of numbers")));
  EXPECT_THAT(log.lines(), ::testing::Contains(::testing::HasSubstr("took 22 seconds")));
}

TEST_F(NetworkChangesTest, ALookupOfNamesHoldsNoStopUp) {
  std::promise<void> answer;
  resolver.answer = answer.get_future().share();
  resolver.isSlow = true;
  interfaces.set("192.0.2.2");
  events.tell();
  clock.sleepFor(std::chrono::seconds(1));
  ASSERT_TRUE(eventually([&] { return resolver.isAsked.load(); }));
  EXPECT_TRUE(changes->stop(std::chrono::seconds(40)));
  changes.reset();
  const int looks = interfaces.looks();
  answer.set_value();
  awaitLooks(looks + 1);  // the thread that was left behind ends before what it uses
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_TRUE(heard().empty());
}

std::vector<PlistValue> changesHeardBy(const DaemonProcess& daemon, const char* module) {
  const PlistValue reply = daemon.send(PlistValue::dictionaryOf({{"command", "heard"}}), module);
  const PlistValue heard = reply.get("changes");
  return {heard.elements().begin(), heard.elements().end()};
}

TEST(DaemonNetworkChanges, ReachTheModules) {
  inNetworkNamespace([] {
    addWire("wire0", "wire1");
    ip("address add 192.0.2.1/24 dev wire0");
    DaemonProcess daemon(DaemonProcess::Transport::plain);
    daemon.useProgram(OSTRELD_FAST_PROGRAM);
    const std::string bundles = daemon.root() + "/usr/share/ostreld/bundles/";
    std::filesystem::copy_file(bundles + "ostrel_test.bundle", bundles + "ostrel_witness.bundle");
    ASSERT_TRUE(daemon.start());
    const auto heardBy = [&](const char* module, std::size_t count) {
      std::vector<PlistValue> heard;
      EXPECT_TRUE(eventually([&] { return (heard = changesHeardBy(daemon, module)).size() >= count; })) << daemon.log();
      heard.resize(count);
      return heard;
    };
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_TRUE(changesHeardBy(daemon, "ostrel_test").empty()) << "nothing has changed yet";

    ip("address add 203.0.113.66/24 dev wire0");
    ip("address del 192.0.2.1/24 dev wire0");
    const auto moved = [](const PlistValue& heard) { return heard.get("newAddress") == PlistValue("203.0.113.66"); };
    // Both hear of it although one of them, whichever is first, throws.
    for (const char* module : {"ostrel_test", "ostrel_witness"}) {
      EXPECT_TRUE(eventually([&] {
        const auto heard = changesHeardBy(daemon, module);
        return !heard.empty() && moved(heard.back());
      })) << daemon.log();
    }
    EXPECT_NE(daemon.log().find("a number too many"), std::string::npos);
    const std::vector<PlistValue> before = changesHeardBy(daemon, "ostrel_test");

    ip("link set wire1 down");  // the carrier is lost
    const PlistValue lost = heardBy("ostrel_test", before.size() + 1).back();
    EXPECT_FALSE(lost.get("usable").boolValue());
    EXPECT_TRUE(lost.get("newAddress").isNull());
    EXPECT_EQ(lost.get("info").get("changes"), PlistValue::arrayOf({"wire0"}));
    EXPECT_EQ(lost.get("info").get("oldState").at(0).get("ipAddress"), PlistValue("203.0.113.66"));

    const PlistValue status = daemon.send(PlistValue::dictionaryOf({{"command", "getStatus"}}), "ostreld");
    EXPECT_TRUE(status.get("networkIsWatched").boolValue());
    EXPECT_EQ(status.get("networkChanges").int64Value(), std::int64_t(before.size() + 1));
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();

    ASSERT_TRUE(daemon.start({"--no-network-changes"}));
    ip("link set wire1 up");
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_TRUE(changesHeardBy(daemon, "ostrel_test").empty());
    EXPECT_EQ(daemon.stop(), 0);
  });
}

/// Whether the step is heard of within the time.
bool isHeard(const char* step, milliseconds limit) {
  using Event = NetworkEventSource::Event;
  const auto source = NetworkEvents::current().open();
  auto event = std::async(std::launch::async, [&source] { return source->wait(); });
  ip(step);
  const bool comes = event.wait_for(limit) == std::future_status::ready;
  source->end();
  EXPECT_EQ(event.get(), comes ? Event::changed : Event::ended) << step;
  EXPECT_EQ(source->wait(), Event::ended);
  return comes;
}

TEST(NetworkEvents, TellOfWhatMatters) {
  inNetworkNamespace([] {
    addWire("wire0", "wire1");
    ip("address add 192.0.2.1/24 dev wire0");
    for (const char* step : {"address add 192.0.2.2/24 dev wire0", "route add default via 192.0.2.9"})
      EXPECT_TRUE(isHeard(step, std::chrono::seconds(40))) << step;
    for (const char* step :
         {"route replace 198.51.100.0/24 via 192.0.2.9", "route replace default via 192.0.2.9 table 7"}) {
      // The links are new: their own news may still come in between.
      int tries = 10;
      while (tries > 0 && isHeard(step, milliseconds(200))) --tries;
      EXPECT_GT(tries, 0) << step;
    }
    for (const char* step : {"route del default via 192.0.2.9", "link set wire1 down"})
      EXPECT_TRUE(isHeard(step, std::chrono::seconds(40))) << step;

    const auto source = NetworkEvents::current().open();
    std::string flood;
    for (int i = 0; i < 1000; ++i) flood += "link set wire0 mtu " + std::to_string(1400 + i % 2) + "\n";
    const testing::TemporaryFolder folder;
    testing::writeFile(folder / "flood", flood);
    ip("-batch " + (folder / "flood"));
    EXPECT_EQ(source->wait(), NetworkEventSource::Event::changed) << "more news than are kept";
  });
}

}  // namespace
}  // namespace ostrel
