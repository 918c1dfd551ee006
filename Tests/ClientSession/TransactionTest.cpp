// The transaction procedure: attempts, results, and its place among the transactions of the process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "ClientSession/Fixtures.h"
#include "Platform/MainEventLoop.h"
#include "Support/Fakes.h"

namespace ostrel::testing {
namespace {

TEST(Transaction, FailedAttemptsAreRepeatedTwice) {
  struct Case {
    const char* what;
    std::vector<std::string> replies;  // the last one is for all further connections
    int connections;
    std::string failure;  // "" for success
  };
  const std::string refused = replyOf("", "", "401 Unauthorized");
  for (const Case& test : {
           Case{"refused", {refused}, 3, "authorization required"},
           Case{"refused by a proxy", {replyOf("", "", "407 x")}, 3, "authorization required"},
           Case{"server error", {replyOf("", "", "500 x")}, 3, "500"},
           Case{"redirection", {replyOf("", "", "302 x")}, 3, "302"},
           Case{"not quite success", {replyOf("", "", "199 x")}, 3, "199"},
           Case{"success of any kind", {replyOf("b", "", "299 x")}, 1, ""},
           Case{"second time lucky", {replyOf("", "", "503 x"), stateReply}, 2, ""},
           Case{"third time lucky", {"no head", refused, stateReply}, 3, ""},
           Case{"the last failure is told", {refused, refused, replyOf("", "", "500 x")}, 3, "500"},
           Case{"an empty body is a body", {replyOf("")}, 1, ""},
       }) {
    Daemon daemon(Transport::plain, [&](Peer& peer, int number) {
      peer.readRequest();
      peer.send(test.replies[std::min<std::size_t>(static_cast<std::size_t>(number), test.replies.size()) - 1]);
    });
    const PlistValue reply = daemon.session->sendSyncRequest({});
    EXPECT_EQ(daemon.server.connections(), test.connections) << test.what;
    const std::string failure = daemon.session->failureReason().value_or("");
    EXPECT_EQ(failure, test.failure.empty() ? "" : "HTTP_REQUEST_FAILED: " + daemon.url() + ": " + test.failure);
    EXPECT_EQ(daemon.session->status(), test.failure.empty() ? 1 : 3) << test.what;
    EXPECT_EQ(reply.contains("error"), !test.failure.empty()) << test.what;
    EXPECT_EQ(OstrelDaemonSession::didAuthenticationFail(failure), test.failure == "authorization required");
  }
}

TEST(Transaction, WithoutAUrlNothingIsTried) {
  FakeResolver resolver({});
  const ScopedOverride<NameResolver> names(resolver);
  const auto session = OstrelDaemonSession::init();
  session->setHost("h\r\nX-Forged: y");
  EXPECT_EQ(session->sendSyncRequest({}), PlistValue::dictionaryOf({{"error", "EMPTY_RESPONSE_ERR"}}));
  EXPECT_EQ(session->failureReason(), "HTTP_REQUEST_FAILED: nil: no details");
  EXPECT_EQ(session->status(), 3);
  const PlistValue raw = session->sendSyncRequest({}, {}, rawPayload);
  EXPECT_TRUE(raw.isData());
  EXPECT_EQ(raw.dataBytes(), "");
  EXPECT_EQ(resolver.asked(), "");
}

TEST(Transaction, OutcomeOfTheLastRequestReplacesTheFormerOne) {
  Daemon daemon(Transport::plain, [](Peer& peer, int number) {
    peer.readRequest();
    peer.send(number <= 3 ? replyOf("", "", "500 x") : stateReply);
  });
  daemon.session->sendSyncRequest({});
  EXPECT_EQ(daemon.session->status(), 3);
  daemon.session->sendSyncRequest({});
  EXPECT_EQ(daemon.session->status(), 1);
  EXPECT_EQ(daemon.session->failureReason(), std::nullopt);
}

// One after another.

class OneAfterAnother {
 public:
  OneAfterAnother() { OstrelDaemonSession::disableMultithreadedTransactions(true, "ignored"); }
  ~OneAfterAnother() { OstrelDaemonSession::disableMultithreadedTransactions(false, std::nullopt); }
};

/// A clock whose sleeps a test watches.
class WatchedClock final : public Clock {
 public:
  using Watcher = std::function<void(std::chrono::nanoseconds, int)>;
  explicit WatchedClock(Watcher watcher) : watcher_(std::move(watcher)) {}
  PlistDate now() override { return {}; }
  std::chrono::nanoseconds monotonic() override { return {}; }
  void sleepFor(std::chrono::nanoseconds duration) override { watcher_(duration, ++sleeps); }
  std::atomic<int> sleeps{0};

 private:
  const Watcher watcher_;
};

TEST(Transaction, WaitsForTheOthersButNotForEver) {
  for (const bool firstEnds : {false, true}) {
    Gate gate;
    Daemon daemon(Transport::plain, [&](Peer& peer, int number) {
      peer.readRequest();
      if (number == 1) gate.pass();
      peer.send(stateReply);
    });
    std::thread first([session = daemon.newSession()] { EXPECT_EQ(session->sendSyncRequest({}), runningState()); });
    gate.waitForArrival();

    int connectionsWhileWaiting = 0;
    WatchedClock clock([&](std::chrono::nanoseconds duration, int sleeps) {
      EXPECT_EQ(duration, std::chrono::milliseconds(100));
      connectionsWhileWaiting = daemon.server.connections();
      if (firstEnds && sleeps == 5) {
        gate.open();
        first.join();
      }
    });
    const ScopedOverride<Clock> time(clock);
    const OneAfterAnother guard;
    EXPECT_TRUE(OstrelDaemonSession::areMultithreadedTransactionsDisabledForHost("any"));
    EXPECT_EQ(daemon.session->sendSyncRequest({}), runningState());
    EXPECT_EQ(clock.sleeps, firstEnds ? 5 : 1800);
    EXPECT_EQ(connectionsWhileWaiting, 1);
    EXPECT_EQ(daemon.server.connections(), 2);
    gate.open();
    if (first.joinable()) first.join();
  }
}

TEST(Transaction, ABrokenReplyPausesEveryTransaction) {
  struct Case {
    std::string reply;
    std::uint32_t payloadType;
    bool serial;
    bool pauses;
  };
  for (const Case& test : {
           Case{replyOf("plain words"), dictionaryPayload, true, true},
           Case{"", dictionaryPayload, true, true},  // a broken connection
           Case{replyOf("plain words"), dictionaryPayload, false, false},
           Case{replyOf("plain words"), rawPayload, true, false},
           Case{stateReply, dictionaryPayload, true, false},
           Case{replyOf("\xFF"), dictionaryPayload, true, false},
           Case{replyOf("", "", "500 x"), dictionaryPayload, true, false},
       }) {
    Daemon daemon(Transport::plain, ScriptedServer::answering(test.reply));
    std::thread second;
    int connectionsDuringPause = 0;
    WatchedClock clock([&](std::chrono::nanoseconds duration, int) {
      if (duration != std::chrono::seconds(3)) return std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (second.joinable()) return;
      // The pause holds the lock, so that this one cannot even begin.
      second = std::thread([session = daemon.newSession()] { session->sendSyncRequest({}); });
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      connectionsDuringPause = daemon.server.connections();
    });
    const ScopedOverride<Clock> time(clock);
    std::optional<OneAfterAnother> guard;
    if (test.serial) guard.emplace();
    daemon.session->sendSyncRequest({}, {}, test.payloadType);
    EXPECT_EQ(second.joinable(), test.pauses) << test.reply;
    if (!second.joinable()) continue;
    second.join();
    EXPECT_EQ(connectionsDuringPause, 1) << test.reply;
    EXPECT_EQ(daemon.server.connections(), 2) << test.reply;
  }
}

TEST(Transaction, AsynchronousOnesTakeTurnsToo) {
  std::atomic<int> running{0};
  Daemon daemon(Transport::plain, [&](Peer& peer, int) {
    peer.readRequest();
    EXPECT_EQ(++running, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    --running;
    peer.send(replyOf("plain words"));
  });
  std::atomic<int> pauses{0};
  WatchedClock clock([&](std::chrono::nanoseconds duration, int) {
    if (duration == std::chrono::seconds(3)) ++pauses;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  const ScopedOverride<Clock> time(clock);
  const OneAfterAnother guard;
  class Silent final : public OstrelDaemonSessTarget {
    bool respondsTo(std::string_view) const override { return true; }
    void perform(std::string_view, OstrelDaemonSessNotification&) override {}
  };
  std::vector<std::shared_ptr<OstrelDaemonSession>> sessions;
  for (int i = 0; i < 4; ++i) {
    sessions.push_back(daemon.newSession());
    sessions.back()->setNotifyTarget(std::make_shared<Silent>());
    sessions.back()->sendAsyncRequest({}, {}, dictionaryPayload, "any:");
  }
  const auto oneIsLeft = [](const auto& session) { return session.use_count() == 1; };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!std::ranges::all_of(sessions, oneIsLeft) && std::chrono::steady_clock::now() < end)
    MainEventLoop::shared().runFor(std::chrono::milliseconds(2));
  EXPECT_EQ(daemon.server.connections(), 4);
  EXPECT_EQ(pauses, 4);
  EXPECT_EQ(sessions[0]->pendingRequestsCount(), 0);
}

}  // namespace
}  // namespace ostrel::testing
