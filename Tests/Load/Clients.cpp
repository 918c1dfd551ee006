#include "Load/Clients.h"

#include <thread>

#include "Platform/MainEventLoop.h"

namespace ostrel::load {
namespace {

using std::chrono::steady_clock;

PlistValue command(const char* name, const std::string& key) {
  return PlistValue::dictionaryOf({{"command", name}, {"key", key}});
}

void workAlone(User& user, const NewSession& newSession, SteadyTime end, Ledger& ledger) {
  Ledger::ByKind measured;
  const auto session = newSession("ostreld");
  while (steady_clock::now() < end) {
    const User::Request request = user.next();
    session->setService(request.module);
    const auto begun = steady_clock::now();
    const PlistValue reply = session->sendSyncRequest(request.request);
    measured[request.kind].add(steady_clock::now() - begun);
    std::string fault = session->failureReason().value_or("");
    if (fault.empty()) fault = user.take(request, reply);
    if (!fault.empty()) ledger.violation(request.kind + " of " + user.key() + " to " + request.module + ": " + fault);
  }
  ledger.add(measured);
}

/// A session whose users each have one request under way, until the end.
class AsyncClient final : public OstrelDaemonSessTarget, public std::enable_shared_from_this<AsyncClient> {
 public:
  AsyncClient(std::vector<User*> users, std::shared_ptr<OstrelDaemonSession> session, SteadyTime end, Ledger& ledger)
      : users_(std::move(users)), session_(std::move(session)), end_(end), ledger_(ledger) {}

  void start() {
    session_->setNotifyTarget(weaklyReferring(weak_from_this()));
    for (User* user : users_) send(*user);
  }
  bool isDone() const { return underWay_.empty(); }
  const Ledger::ByKind& measured() const { return measured_; }

  bool respondsTo(std::string_view operation) const override { return operation == "heard:"; }
  void perform(std::string_view /*operation*/, OstrelDaemonSessNotification& told) override {
    const auto number = static_cast<std::uint32_t>(told.userInfo.get("transactionNb").uint64Value());
    UnderWay& request = underWay_.at(number);
    if (told.userInfo.get("name").stringValue() == "ResourceDidBeginLoading") {
      request.begun = steady_clock::now();
      return;
    }
    measured_["async " + request.request.kind].add(steady_clock::now() - request.begun);
    std::string fault;
    if (told.userInfo.get("name").stringValue() != "ResourceDidFinishLoading") {
      fault = told.userInfo.description();
    } else {
      fault = request.user->take(request.request, told.userInfo.get("response"));
    }
    if (!fault.empty())
      ledger_.violation("async " + request.request.kind + " of " + request.user->key() + ": " + fault);
    User& user = *request.user;
    underWay_.erase(number);
    if (steady_clock::now() < end_) send(user);
  }

 private:
  struct UnderWay {
    User* user;
    User::Request request;
    SteadyTime begun;
  };

  void send(User& user) {
    UnderWay request{&user, user.next(), steady_clock::now()};
    session_->setService(request.request.module);
    const std::uint32_t number =
        session_->sendAsyncRequest(request.request.request, {}, dictionaryPayload, std::string("heard:"));
    underWay_.emplace(number, std::move(request));
  }

  const std::vector<User*> users_;
  const std::shared_ptr<OstrelDaemonSession> session_;
  const SteadyTime end_;
  Ledger& ledger_;
  std::map<std::uint32_t, UnderWay> underWay_;
  Ledger::ByKind measured_;
};

}  // namespace

PlistValue User::keepRequest(const std::string& module, Request& request) {
  const std::int64_t number = acknowledged_[module] + 1;
  request.numbers[module] = number;
  PlistValue keep = command("keep", key_).mutableCopy();
  keep.set("number", number);
  return keep;
}

User::Request User::next() {
  Request request;
  request.module = any(modules_);
  const unsigned choice = static_cast<unsigned>(random_()) % 100;
  if (choice < 45) {
    request.kind = "keep";
    request.request = keepRequest(request.module, request);
  } else if (choice < 75) {
    request.kind = "read";
    request.request = command("read", key_);
  } else if (choice < 85) {
    request.kind = "fill";
    request.request = command("fill", key_);
  } else if (choice < 95) {
    request.kind = "foreign";
    request.module = any(foreignModules_);
    request.request = command("foreign", key_);
  } else if (choice < 98 || !sendsBatches_) {
    request.kind = "slow";
    request.request = command("slow", key_);
  } else {
    // Two numbers and a reading of a third module, side by side.
    request.kind = "batch";
    request.module = "ostreld";
    PlistValue members = PlistValue::mutableArray();
    const std::size_t first = random_() % modules_.size();
    for (std::size_t i = 0; i < 3; ++i) {
      const std::string& module = modules_[(first + i) % modules_.size()];
      const PlistValue member = i < 2 ? keepRequest(module, request) : command("read", key_);
      members.append(PlistValue::dictionaryOf({{"name", module}, {"request", member}}));
    }
    request.request = PlistValue::dictionaryOf({{"command", "batch"}, {"requestsArray", members}});
  }
  return request;
}

std::string User::take(const Request& sent, const PlistValue& reply) {
  if (reply.contains("error")) return reply.get("error").description();
  if (sent.kind == "fill") return reply.get("text").stringValue().size() == 4096 ? "" : "not what was asked for";
  if (sent.kind == "foreign") return reply.get("isWhole").boolValue() ? "" : "half a context: " + reply.description();
  const auto isRight = [&](const std::string& module, const PlistValue& answer) {
    const auto number = sent.numbers.find(module);
    const std::int64_t expected = number != sent.numbers.end() ? number->second : acknowledged_[module];
    return answer.get("number").isNumber() && answer.get("number").int64Value() == expected;
  };
  if (sent.kind == "batch") {
    const PlistValue responses = reply.get("responsesArray");
    if (responses.count() != 3) return "not three answers: " + reply.description();
    for (const PlistValue& response : responses.elements()) {
      if (!isRight(std::string(response.get("name").stringValue()), response.get("response")))
        return "wrong: " + response.description();
    }
  } else if (!isRight(sent.module, reply)) {
    return "answered " + reply.description() + " after " + std::to_string(acknowledged_[sent.module]);
  }
  for (const auto& [module, number] : sent.numbers) acknowledged_[module] = number;
  return "";
}

void work(std::vector<User>& synchronous, std::vector<User>& asynchronous, std::size_t lanes, const NewSession& session,
          SteadyTime end, Ledger& ledger) {
  std::vector<std::thread> threads;
  for (User& user : synchronous) threads.emplace_back([&] { workAlone(user, session, end, ledger); });

  std::vector<std::shared_ptr<AsyncClient>> clients;
  for (std::size_t i = 0; i < asynchronous.size(); i += lanes) {
    std::vector<User*> users;
    for (std::size_t lane = i; lane < std::min(i + lanes, asynchronous.size()); ++lane)
      users.push_back(&asynchronous[lane]);
    clients.push_back(std::make_shared<AsyncClient>(std::move(users), session("ostreld"), end, ledger));
    clients.back()->start();
  }
  const auto allDone = [&] {
    return std::ranges::all_of(clients, [](const auto& client) { return client->isDone(); });
  };
  while (!allDone()) MainEventLoop::shared().runFor(std::chrono::milliseconds(20));
  for (const auto& client : clients) ledger.add(client->measured());
  for (std::thread& thread : threads) thread.join();
}

}  // namespace ostrel::load
