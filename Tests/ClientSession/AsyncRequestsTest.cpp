// Asynchronous requests against a server on loopback: their order, their cancellation, what callbacks may do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <thread>

#include "ClientSession/Fixtures.h"
#include "Platform/MainEventLoop.h"
#include "Platform/NotificationCenter.h"
#include "Support/Fakes.h"
#include "Support/Loopback.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Runs the main event loop until the condition holds; whether it did in time.
bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 30s) {
  const auto end = steady_clock::now() + limit;
  while (!condition() && steady_clock::now() < end) MainEventLoop::shared().runFor(2ms);
  return condition();
}

/// Writes down what it is told: "begin 1", "finish 1", ...
class Recorder final : public OstrelDaemonSessTarget {
 public:
  using Hook = std::function<void(OstrelDaemonSessNotification&)>;
  bool respondsTo(std::string_view operation) const override { return operation == "heard:" || operation == "other:"; }
  void perform(std::string_view operation, OstrelDaemonSessNotification& notification) override {
    EXPECT_TRUE(MainEventLoop::shared().isMainThread());
    EXPECT_EQ(notification.name, "kOstrelDaemonSessNotif");
    EXPECT_NE(notification.sender, nullptr);
    const std::string name(notification.userInfo.get("name").stringValue());
    const char* shortName = name == "ResourceDidBeginLoading"            ? "begin "
                            : name == "ResourceDidFinishLoading"         ? "finish "
                            : name == "ResourceDidCancelLoading"         ? "cancel "
                            : name == "ResourceDidFailLoadingWithReason" ? "fail "
                                                                         : "?";
    events.push_back(shortName + std::to_string(notification.userInfo.get("transactionNb").uint64Value()) +
                     (operation == "heard:" ? "" : " by other:"));
    last = notification.userInfo;
    lastObject = notification.object;
    if (hook) hook(notification);
  }

  std::vector<std::string> events;
  PlistValue last;
  std::string lastObject;
  Hook hook;
};

struct Client {
  explicit Client(const Daemon& daemon, std::optional<std::string> sessionID = {}) : session(daemon.newSession()) {
    session->setNotifyTarget(recorder);
    session->setNotifySelector("heard:");
    session->_setSessionID(std::move(sessionID));
  }
  bool isIdle() const { return session->pendingRequestsCount() == 0; }
  bool runToTheEnd() const {
    return runUntil([this] { return isIdle(); });
  }

  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<OstrelDaemonSession> session;
};

PlistValue request() { return PlistValue::dictionaryOf({{"command", "getState"}}); }

TEST(AsyncRequests, TheFirstReplyHandsTheIdentifierOutForThoseThatWait) {
  for (const Transport transport : {Transport::plain, Transport::tls}) {
    Mutex mutex;
    std::vector<std::string> heads;
    Daemon daemon(transport, [&](Peer& peer, int) {
      const std::string head = peer.readRequest();
      {
        const MutexLock lock(mutex);
        heads.push_back(head);
      }
      peer.send(replyOf("<plist><dict/></plist>", "OstrelSessionID: root@1\r\n"));
    });
    Client client(daemon);
    std::vector<std::string> posted;
    NotificationCenter& center = NotificationCenter::defaultCenter();
    center.addObserver(&client, kStartingTransactionNotif, [&](const Notification& notification) {
      const auto* task = static_cast<OstrelDaemonSessTask*>(notification.payload.get());
      EXPECT_TRUE(notification.object.isNull());
      posted.push_back("starting " + std::to_string(*task->transactionNb));
    });
    center.addObserver(&client, kCompletedTransactionNotif, [&](const Notification& notification) {
      auto* result = static_cast<OstrelDaemonSessNotification*>(notification.payload.get());
      EXPECT_TRUE(
          client.recorder->events.back().starts_with("finish " + result->userInfo.get("transactionNb").description()));
      posted.push_back("completed " + result->userInfo.get("transactionNb").description());
    });

    const auto start = steady_clock::now();
    auto begun = start;
    client.recorder->hook = [&](OstrelDaemonSessNotification& notification) {
      if (client.recorder->events.size() == 1) begun = steady_clock::now();
      EXPECT_EQ(notification.task != nullptr, client.recorder->events.back().starts_with("begin"));
    };
    PlistValue changing = PlistValue::mutableDictionary();
    changing.set("command", "first");
    EXPECT_EQ(client.session->sendAsyncRequest(changing), 1U);
    changing.set("command", "changed later");
    EXPECT_EQ(client.session->sendAsyncRequest(request(), {}, rawPayload), 2U);
    EXPECT_EQ(client.session->sendAsyncRequest(request(), {}, dictionaryPayload, "other:"), 3U);
    client.session->setService("changed later");
    EXPECT_EQ(client.session->pendingRequestsCount(), 3);
    EXPECT_THAT(client.recorder->events, IsEmpty());
    EXPECT_TRUE(client.runToTheEnd());
    center.removeObserver(&client);

    EXPECT_THAT(client.recorder->events,
                ElementsAre("begin 1", "finish 1", "begin 2", "finish 2", "begin 3 by other:", "finish 3 by other:"));
    EXPECT_THAT(posted,
                ElementsAre("starting 1", "completed 1", "starting 2", "completed 2", "starting 3", "completed 3"));
    EXPECT_GE(begun - start, 100ms);
    const MutexLock lock(mutex);
    ASSERT_EQ(heads.size(), 3U);
    EXPECT_EQ(heads[0].find("OstrelSessionID"), std::string::npos);
    EXPECT_NE(heads[0].find("first"), std::string::npos);
    for (const std::size_t i : {1U, 2U}) EXPECT_NE(heads[i].find("OstrelSessionID: root@1\r\n"), std::string::npos);
    for (const std::string& head : heads) EXPECT_TRUE(head.starts_with("POST /commands/ostrel_sample "));
  }
}

TEST(AsyncRequests, ResultsTellWhatHappened) {
  struct Case {
    std::string reply;
    std::uint32_t payloadType;
    const char* name;
    PlistValue response;  // of a finish
    std::string newBytes;
    std::string reason;  // of a failure
  };
  const PlistValue brokenReply = PlistValue::dictionaryOf({{"RawResponse", "BROKEN_CONNECTION"}});
  for (const Case& test : {
           Case{stateReply, dictionaryPayload, "finish 1", runningState(), "82", ""},
           Case{replyOf(std::string(512, 'b')), rawPayload, "finish 1", PlistData{std::string(512, 'b')}, "512", ""},
           Case{replyOf(""), rawPayload, "finish 1", PlistData{""}, "0", ""},
           Case{"", dictionaryPayload, "finish 1", brokenReply, "", ""},
           Case{replyOf("", "", "500 x"), dictionaryPayload, "fail 1", {}, "", "500"},
           Case{replyOf("", "", "401 x"), dictionaryPayload, "fail 1", {}, "", "authorization required"},
       }) {
    Daemon daemon(Transport::plain, ScriptedServer::answering(test.reply));
    Client client(daemon, "root@1");
    client.session->sendAsyncRequest(request(), {}, test.payloadType);
    ASSERT_TRUE(client.runToTheEnd());
    EXPECT_THAT(client.recorder->events, ElementsAre("begin 1", test.name));
    const PlistValue& told = client.recorder->last;
    EXPECT_EQ(client.recorder->lastObject, "heard:");
    EXPECT_EQ(told.get("service").stringValue(), "ostrel_sample");
    const bool failed = !test.reason.empty();
    EXPECT_EQ(told.get("status").int64Value(), failed ? 3 : 1);
    EXPECT_EQ(told.get("response"), test.response);
    EXPECT_EQ(told.contains("newBytes"), !failed);
    EXPECT_EQ(told.get("newBytes").isString(), !failed);
    if (!test.newBytes.empty()) {
      EXPECT_EQ(told.get("newBytes").stringValue(), test.newBytes);
    }
    EXPECT_EQ(told.get("sessionID").stringValue(), test.reply.empty() ? "root@1" : "");
    EXPECT_EQ(told.contains("reason"), failed);
    if (!failed) continue;
    const std::string reason(told.get("reason").stringValue());
    EXPECT_EQ(reason, "HTTP_REQUEST_FAILED: " + daemon.url() + ": " + test.reason);
    EXPECT_EQ(OstrelDaemonSession::didAuthenticationFail(reason), test.reason == "authorization required");
    EXPECT_EQ(client.session->status(), 0);  // that is of synchronous requests
  }
}

TEST(AsyncRequests, RunSideBySideOnceAnIdentifierIsHeld) {
  Gate gate;
  Daemon daemon(Transport::plain, [&](Peer& peer, int) {
    peer.readRequest();
    gate.pass();
    peer.send(stateReply);
  });
  Client client(daemon, "root@1");
  for (int i = 0; i < 5; ++i) client.session->sendAsyncRequest(request());
  EXPECT_TRUE(runUntil([&] { return daemon.server.connections() == 5; }));
  EXPECT_EQ(client.session->pendingRequestsCount(), 5);
  gate.open();
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_EQ(client.recorder->events.size(), 10U);
}

TEST(AsyncRequests, TheHundredAndThirtiethIsRejectedAndEndsAllThatWait) {
  RecordingLog log;
  const ScopedOverride<SystemLog> logging(log);
  Gate gate;
  Daemon daemon(Transport::plain, [&](Peer& peer, int) {
    peer.readRequest();
    gate.pass();
    peer.send(stateReply);
  });
  Client client(daemon);
  for (std::uint32_t number = 1; number <= 129; ++number)
    ASSERT_EQ(client.session->sendAsyncRequest(request()), number);
  EXPECT_EQ(client.session->pendingRequestsCount(), 129);
  EXPECT_THAT(client.recorder->events, IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());

  // Each one that is cancelled is sent again by its callback: once more, not endlessly deep.
  int sentAgain = 0;
  client.recorder->hook = [&](OstrelDaemonSessNotification& notification) {
    if (sentAgain == 3 || notification.userInfo.get("name").stringValue() != "ResourceDidCancelLoading") return;
    ++sentAgain;
    notification.sender->sendAsyncRequest(request());
  };
  EXPECT_EQ(client.session->sendAsyncRequest(request()), 130U);
  std::vector<std::string> expected;
  for (int number = 2; number <= 130; ++number) {
    expected.push_back("begin " + std::to_string(number));
    expected.push_back("cancel " + std::to_string(number));
  }
  EXPECT_EQ(client.recorder->events, expected);
  EXPECT_EQ(client.recorder->last.get("sessionID").stringValue(), "");
  EXPECT_EQ(client.recorder->last.get("status").int64Value(), 3);
  EXPECT_EQ(log.lines().front(), "[" + std::to_string(getpid()) + "] Ostrel session rejected request for 127.0.0.1/" +
                                     "ostrel_sample (stuck thread?)\n");
  gate.open();
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_EQ(sentAgain, 3);
  EXPECT_EQ(daemon.server.connections(), 4 - static_cast<int>(log.lines().size() - 1));
}

TEST(AsyncRequests, OnlyTheMainThreadIssuesThem) {
  RecordingLog log;
  const ScopedOverride<SystemLog> logging(log);
  const auto session = OstrelDaemonSession::init();
  std::thread([&] { EXPECT_EQ(session->sendAsyncRequest(request()), 0U); }).join();
  EXPECT_EQ(session->pendingRequestsCount(), 0);
  EXPECT_THAT(log.lines(), ElementsAre("[" + std::to_string(getpid()) +
                                       "] Only the main thread may call -[OstrelDaemonSession sendAsyncRequest:]\n"));
}

TEST(AsyncRequests, CancellingReachesEveryState) {
  Gate gate;
  Daemon daemon(Transport::plain, [&](Peer& peer, int number) {
    peer.readRequest();
    peer.send(stateReply + std::string(8192, ' '));
    if (number == 1) gate.pass();
    peer.send(std::string(8192, ' '));
  });
  Client client(daemon);
  client.session->cancelAsyncRequests();  // nothing pending: nothing happens
  EXPECT_FALSE(client.session->canCancel());
  client.session->sendAsyncRequest(request());
  client.session->sendAsyncRequest(request());
  EXPECT_TRUE(client.session->canCancel());
  ASSERT_TRUE(runUntil([&] { return gate.hasArrived(); }));
  client.session->cancelAsyncRequests();
  gate.open();
  EXPECT_TRUE(client.runToTheEnd());
  // The running one read what had come and completed; the waiting one is told that it began, too.
  EXPECT_THAT(client.recorder->events, ElementsAre("begin 1", "cancel 1", "begin 2", "cancel 2"));
  EXPECT_EQ(client.recorder->last.get("status").int64Value(), 3);

  // One that waits for its start never connects; the flag holds for synchronous requests too.
  client.recorder->events.clear();
  client.session->sendAsyncRequest(request());
  client.session->cancelAsyncRequests();
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_THAT(client.recorder->events, ElementsAre("begin 3", "cancel 3"));
  EXPECT_EQ(client.session->sendSyncRequest(request()).get("error").stringValue(), "EMPTY_RESPONSE_ERR");
  EXPECT_EQ(daemon.server.connections(), 1);

  // The next one that starts without waiting clears it.
  client.recorder->events.clear();
  client.session->sendAsyncRequest(request());
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_THAT(client.recorder->events, ElementsAre("begin 4", "finish 4"));
}

TEST(AsyncRequests, WhatIsSentAgainOnItsCancellationRunsInTheEnd) {
  Gate gate;
  Daemon daemon(Transport::plain, [&](Peer& peer, int number) {
    peer.readRequest();
    if (number == 1) gate.pass();
    peer.send(stateReply);
  });
  Client client(daemon);
  for (int i = 0; i < 3; ++i) client.session->sendAsyncRequest(request());
  ASSERT_TRUE(runUntil([&] { return gate.hasArrived(); }));
  client.recorder->hook = [&](OstrelDaemonSessNotification& notification) {
    const bool isCancelled = notification.userInfo.get("name").stringValue() == "ResourceDidCancelLoading";
    if (isCancelled && notification.userInfo.get("transactionNb").int64Value() > 1)
      notification.sender->sendAsyncRequest(request());
  };
  client.session->cancelAsyncRequests();
  gate.open();
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_THAT(client.recorder->events, ElementsAre("begin 1", "cancel 1", "begin 2", "cancel 2", "begin 3", "cancel 3",
                                                   "begin 4", "finish 4", "begin 5", "finish 5"));
}

TEST(AsyncRequests, ResultsVanishWithoutATargetOrItsOperation) {
  Daemon daemon(Transport::plain, ScriptedServer::answering(stateReply));
  struct Case {
    bool hasTarget;
    std::optional<std::string> operation;
    int pending;  // afterwards
  };
  for (const Case& test : {Case{false, "heard:", 2}, Case{true, std::nullopt, 2}, Case{true, "unknown:", 0}}) {
    const int before = daemon.server.connections();
    Client client(daemon, "root@1");
    if (!test.hasTarget) client.session->setNotifyTarget(nullptr);
    client.session->sendAsyncRequest(request(), {}, dictionaryPayload, test.operation);
    client.session->sendAsyncRequest(request(), {}, dictionaryPayload, test.operation);
    const std::weak_ptr<OstrelDaemonSession> session = client.session;
    EXPECT_TRUE(runUntil([&] { return daemon.server.connections() == before + 2; }));
    EXPECT_TRUE(runUntil([&] { return client.session.use_count() == 1; }));  // both workers are through
    EXPECT_EQ(client.session->pendingRequestsCount(), test.pending);
    EXPECT_THAT(client.recorder->events, IsEmpty());
  }
}

TEST(AsyncRequests, DetachingAndForgettingWaitForTheNextResult) {
  Gate gate;
  Daemon daemon(Transport::plain, [&](Peer& peer, int) {
    peer.readRequest();
    gate.pass();
    peer.send(replyOf("<plist><dict/></plist>", "OstrelSessionID: root@2\r\n"));
  });
  Client client(daemon);
  client.session->sendAsyncRequest(request());
  client.session->sendAsyncRequest(request());
  ASSERT_TRUE(runUntil([&] { return gate.hasArrived(); }));
  client.session->deauthenticate();
  client.session->deinit();
  EXPECT_NE(client.session->notifyTarget(), nullptr);
  // In the callback the identifier of this result is still there; then the flag forgets it.
  client.recorder->hook = [](OstrelDaemonSessNotification& notification) {
    const bool carriesIt = notification.userInfo.get("sessionID").stringValue() == "root@2";
    EXPECT_EQ(notification.sender->sessionID() == "root@2", carriesIt);
  };
  gate.open();
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_EQ(client.session->notifyTarget(), nullptr);
  EXPECT_EQ(client.session->sessionID(), std::nullopt);
  EXPECT_THAT(client.recorder->events, ElementsAre("begin 1", "cancel 1", "begin 2", "cancel 2"));
}

TEST(AsyncRequests, CallbacksMayDoWhatTheyLike) {
  RecordingLog log;
  const ScopedOverride<SystemLog> logging(log);
  Daemon daemon(Transport::plain, ScriptedServer::answering(stateReply));
  struct Case {
    const char* what;
    std::function<void(Client&, OstrelDaemonSessNotification&)> act;
    std::vector<std::string> events;
  };
  const auto isResult = [](const OstrelDaemonSessNotification& told) { return told.task == nullptr; };
  const std::vector<std::string> both{"begin 1", "finish 1", "begin 2", "finish 2"};
  const std::vector<Case> cases{
      {"throw", [](Client&, auto&) { throw std::runtime_error("out of ink"); }, both},
      {"throw what is no exception", [](Client&, auto&) { throw 7; }, both},
      {"send again",
       [&](Client&, auto& told) {
         if (isResult(told) && told.userInfo.get("transactionNb").int64Value() < 3)
           told.sender->sendAsyncRequest(request());
       },
       // The fourth was issued while nothing else was pending, and so was started a tenth of a second later.
       {"begin 1", "finish 1", "begin 2", "finish 2", "begin 3", "finish 3", "begin 4", "finish 4"}},
      {"cancel",
       [](Client&, auto& told) { told.sender->cancelAsyncRequests(); },
       {"begin 1", "cancel 1", "begin 2", "cancel 2"}},
      {"detach at the last result",
       [](Client&, auto& told) {
         if (told.sender->pendingRequestsCount() == 0) told.sender->deinit();
       },
       both},
      {"let go of the last reference", [](Client& client, auto&) { client.session.reset(); }, both},
      {"run the loop", [](Client&, auto&) { MainEventLoop::shared().runFor(5ms); }, both},
  };
  for (const Case& test : cases) {
    Client client(daemon);
    client.recorder->hook = [&](OstrelDaemonSessNotification& told) { test.act(client, told); };
    const std::weak_ptr<OstrelDaemonSession> session = client.session;
    client.session->sendAsyncRequest(request());
    client.session->sendAsyncRequest(request());
    EXPECT_TRUE(runUntil([&] { return client.recorder->events.size() >= test.events.size(); })) << test.what;
    EXPECT_EQ(client.recorder->events, test.events) << test.what;
    client.session.reset();
    EXPECT_TRUE(runUntil([&] { return session.expired(); })) << test.what;
    client.recorder->hook = {};
  }
  EXPECT_TRUE(
      log.holds("[" + std::to_string(getpid()) + "] Ostrel session callback heard: raised an exception: out of ink\n"));
}

TEST(AsyncRequests, ASessionGoesOnTheMainThreadAfterItsLastRequest) {
  class Tracked final : public OstrelDaemonSessTarget {
   public:
    explicit Tracked(bool& gone) : gone_(gone) {}
    ~Tracked() override {
      EXPECT_TRUE(MainEventLoop::shared().isMainThread());
      gone_ = true;
    }
    bool respondsTo(std::string_view) const override { return true; }
    void perform(std::string_view, OstrelDaemonSessNotification&) override {}

   private:
    bool& gone_;
  };
  Daemon daemon(Transport::plain, ScriptedServer::answering(stateReply));
  for (const std::optional<std::string>& operation :
       {std::optional<std::string>("any:"), std::optional<std::string>()}) {
    bool gone = false;
    auto session = daemon.newSession();
    session->_setSessionID("root@1");
    session->setNotifyTarget(std::make_shared<Tracked>(gone));
    for (int i = 0; i < 4; ++i) session->sendAsyncRequest(request(), {}, dictionaryPayload, operation);
    session.reset();
    EXPECT_FALSE(gone);
    EXPECT_TRUE(runUntil([&] { return gone; }));
  }
}

TEST(AsyncRequests, ATargetMayGoBeforeItsSession) {
  Daemon daemon(Transport::plain, ScriptedServer::answering(stateReply));
  Client client(daemon, "root@1");
  client.session->setNotifyTarget(OstrelDaemonSessTarget::weaklyReferring(client.recorder));
  client.session->sendAsyncRequest(request());
  EXPECT_TRUE(client.runToTheEnd());
  EXPECT_THAT(client.recorder->events, ElementsAre("begin 1", "finish 1"));
  client.session->sendAsyncRequest(request());
  client.recorder.reset();
  EXPECT_TRUE(client.runToTheEnd());
}

/// Leaves the process while workers wait for a main loop that nobody runs any more, and while they read, in clear text
/// and in a TLS handshake, from a daemon that does not answer.
[[noreturn]] void exitInTheMiddle() {
  const LoopbackListener silent;
  FakeResolver resolver({silent.address()});
  const ScopedOverride<NameResolver> redirect(resolver);
  std::vector<std::shared_ptr<OstrelDaemonSession>> sessions;
  const auto recorder = std::make_shared<Recorder>();
  for (const std::string& URL : {"http://127.0.0.1:" + std::to_string(silent.port()) + "/silent",
                                 std::string("http://silent:311/tls"), std::string("no address")}) {
    for (int i = 0; i < 3; ++i) {
      sessions.push_back(OstrelDaemonSession::initWithService("any", recorder));
      sessions.back()->setUseTimeoutForTransactions(true);
      sessions.back()->sendAsyncRequest({}, URL, dictionaryPayload, "heard:");
    }
  }
  recorder->hook = [&](auto&) {
    if (recorder->events.size() == 9) MainEventLoop::shared().stop();
  };
  if (!MainEventLoop::shared().runFor(30s)) std::exit(1);
  std::this_thread::sleep_for(100ms);
  std::exit(0);
}

TEST(AsyncRequestsDeathTest, AProcessMayExitInTheMiddle) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int i = 0; i < 5; ++i) EXPECT_EXIT(exitInTheMiddle(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ostrel::testing
