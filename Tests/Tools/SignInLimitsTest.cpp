// What stands between a stranger and a session: the credentials' form, the sessions' ends, the limits on guesses.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Containers/Base64.h"
#include "Support/Fakes.h"
#include "ostreld/Authenticator.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

TEST(BasicCredentials, AreANameAndAPasswordInBase64AndNothingElse) {
  const auto header = [](const std::string& text) { return "Basic " + encodeBase64(text); };
  struct Case {
    std::string header;
    const char* user;
    const char* password;
  };
  const Case taken[] = {
      {header("ada:secret"), "ada", "secret"},
      {header("zo\u00eb:p\u00e4ss w\u00f6rd:2"), "zo\u00eb", "p\u00e4ss w\u00f6rd:2"},
      {"bAsIc   " + encodeBase64("ada:"), "ada", ""},
      {header(std::string(255, 'u') + ":" + std::string(511, 'p')), nullptr, nullptr},
  };
  for (const Case& c : taken) {
    const auto read = readBasicCredentials(c.header);
    ASSERT_TRUE(read) << c.header;
    if (c.user == nullptr) continue;
    EXPECT_EQ(read->user, c.user);
    EXPECT_EQ(read->password, c.password);
  }
  const std::string refused[] = {"",
                                 "Basic",
                                 "Basic ",
                                 "Basic      ",
                                 "Bearer YTpi",
                                 "BasicYTpi",
                                 "Basic YTpi=",
                                 "Basic YT pi",
                                 "Basic %%%%",
                                 "Basic YTpi\xFF",
                                 header("no colon"),
                                 header(":no name"),
                                 header("a\0b:c"s),
                                 header("a:b\0c"s),
                                 header("a:b\nc"),
                                 header("a:\xFF\xFE"),
                                 header(std::string(256, 'u') + ":p"),
                                 header("u:" + std::string(512, 'p')),
                                 header("u:" + std::string(1 << 20, 'p'))};
  for (const std::string& text : refused) EXPECT_FALSE(readBasicCredentials(text)) << text.substr(0, 80);
}

class TimedTest : public ::testing::Test {
 protected:
  testing::FakeClock clock_;
  const ScopedOverride<Clock> override_{clock_};
};

class SessionTableTest : public TimedTest {};

TEST_F(SessionTableTest, SessionsEndByIdlenessAgeNumberAndRequest) {
  SessionTable table({.idle = 30min, .life = 2h, .perUser = 2, .total = 3});
  const std::string ada = table.begin({"ada", "A", "Ada"}).value();
  EXPECT_EQ(ada.size(), 4U + 32U);
  EXPECT_EQ(table.find(ada)->signedInAs, "Ada");
  std::string forged = ada;
  forged.back() = forged.back() == 'x' ? 'y' : 'x';
  for (const std::string& other : {forged, ada.substr(0, 35), ada + "x", "ada"s, ""s}) EXPECT_FALSE(table.find(other));

  const std::string idle = table.begin({"ada", "A", "ada"}).value();
  for (int minutes = 0; minutes < 110; minutes += 10) {
    clock_.sleepFor(10min);
    EXPECT_TRUE(table.find(ada)) << minutes;
    if (minutes == 20) {
      EXPECT_FALSE(table.find(idle));
    }
  }
  clock_.sleepFor(10min);
  EXPECT_FALSE(table.find(ada)) << "used all the time, but two hours old";

  const auto begin = [&](const char* user, const char* identifier) {
    clock_.sleepFor(1s);
    return table.begin({user, identifier, user}).value();
  };
  const std::string bob = begin("bob", "B");
  const std::string first = begin("ada", "A");
  const std::string second = begin("ada", "A");
  clock_.sleepFor(1s);
  EXPECT_TRUE(table.find(first));
  const std::string third = begin("ada", "A");
  EXPECT_FALSE(table.find(second)) << "ada's least recently used one made room, nobody else's";
  EXPECT_TRUE(table.find(bob) && table.find(first) && table.find(third));
  clock_.sleepFor(1s);
  EXPECT_TRUE(table.find(first) && table.find(third));
  const std::string carol = begin("carol", "C");
  EXPECT_FALSE(table.find(bob)) << "of all, bob's was used least recently";
  EXPECT_TRUE(table.end(carol));
  EXPECT_FALSE(table.end(carol));
  EXPECT_FALSE(table.find(carol));
  EXPECT_EQ(table.count(), 2U);
}

class SignInGateTest : public TimedTest {
 protected:
  /// How long a wrong password takes to be refused.
  std::chrono::nanoseconds fail(SignInGate& gate, const std::string& peer, const std::string& user) {
    const auto begun = clock_.monotonic();
    EXPECT_EQ(gate.enter(peer), SignInGate::Entry::open);
    std::thread other([&] { gate.leaveRefused(peer, user, begun); });
    std::atomic<bool> ended = false;
    std::thread time([&] {
      while (!ended) {
        clock_.sleepFor(100ms);
        std::this_thread::sleep_for(3ms);
      }
    });
    other.join();
    const auto taken = clock_.monotonic() - begun;
    ended = true;
    time.join();
    return taken;
  }
};

TEST_F(SignInGateTest, FailuresTakeLongerCountByPeerAndAreForgotten) {
  SignInGate gate({.checksAtOnce = 4, .failuresPerPeer = 14, .forgetsOne = 1h});
  for (int failure = 1; failure <= 9; ++failure) {
    EXPECT_LT(fail(gate, "10.0.0.1", "admin"), 900ms) << failure;
  }
  EXPECT_GE(fail(gate, "10.0.0.1", "admin"), 1s);
  EXPECT_GE(fail(gate, "10.0.0.2", "ADMIN"), 1s) << "the user's failures count from everywhere, in any case";
  EXPECT_LT(fail(gate, "10.0.0.3", "nobody such"), 900ms);
  for (int failure = 0; failure < 4; ++failure) fail(gate, "10.0.0.1", "someone else");
  EXPECT_EQ(gate.enter("10.0.0.1"), SignInGate::Entry::tooManyFailures);
  EXPECT_GT(gate.waitOf("10.0.0.1"), 50min);

  // Nobody is locked out elsewhere, and who knows the password takes away what stood against the name.
  ASSERT_EQ(gate.enter("10.0.0.2"), SignInGate::Entry::open);
  gate.leaveAccepted("10.0.0.2", "admin");
  EXPECT_LT(fail(gate, "10.0.0.2", "admin"), 900ms);
  EXPECT_EQ(gate.enter("10.0.0.1"), SignInGate::Entry::tooManyFailures) << "but not what stands against a peer";
  clock_.sleepFor(2h);
  EXPECT_EQ(gate.enter("10.0.0.1"), SignInGate::Entry::open);
  gate.leaveAccepted("10.0.0.1", "someone else");
}

TEST_F(SignInGateTest, ChecksWaitForTheirTurnAndHaveNoWayAroundTheLimit) {
  SignInGate gate({.checksAtOnce = 2, .patience = 10s, .failuresPerPeer = 3, .forgetsOne = 1h});
  ASSERT_EQ(gate.enter("a"), SignInGate::Entry::open);
  SignInGate::Entry again{};
  std::thread second([&] { again = gate.enter("a"); });
  std::this_thread::sleep_for(20ms);
  ASSERT_EQ(gate.enter("b"), SignInGate::Entry::open) << "one peer alone does not take every place";
  SignInGate::Entry entry{};
  std::thread third([&] { entry = gate.enter("c"); });
  std::this_thread::sleep_for(20ms);
  clock_.sleepFor(11s);
  second.join();
  third.join();
  EXPECT_EQ(again, SignInGate::Entry::tooBusy);
  EXPECT_EQ(entry, SignInGate::Entry::tooBusy);
  gate.leaveAccepted("a", "u");
  gate.leaveAccepted("b", "u");

  // Guesses that are sent all at once are not more guesses.
  std::atomic<int> checked = 0;
  std::vector<std::thread> guesses;
  for (int guess = 0; guess < 16; ++guess) {
    guesses.emplace_back([&] {
      if (gate.enter("mallory") != SignInGate::Entry::open) return;
      ++checked;
      gate.leaveRefused("mallory", "admin", clock_.monotonic());
    });
  }
  std::this_thread::sleep_for(50ms);
  gate.stop();
  for (std::thread& guess : guesses) guess.join();
  EXPECT_EQ(checked, 3);
}

TEST_F(SignInGateTest, AFloodOfPeersWashesNoCountAway) {
  SignInGate gate({.failuresPerPeer = 3, .forgetsOne = 1h, .failureTime = 1ms, .longestFailure = 1ms});
  const auto failAtOnce = [&](const std::string& peer) {
    ASSERT_EQ(gate.enter(peer), SignInGate::Entry::open);
    gate.leaveRefused(peer, peer, clock_.monotonic() - 1ms);
  };
  for (int failure = 0; failure < 3; ++failure) failAtOnce("mallory");
  for (int peer = 0; peer < 10'000; ++peer) failAtOnce(std::to_string(peer));
  EXPECT_EQ(gate.enter("mallory"), SignInGate::Entry::tooManyFailures);
}

}  // namespace
}  // namespace ostrel
