// One transaction of a session: its place among those of the process, its attempts, its result.
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "ClientSession/Internal/TransactionOutcome.h"
#include "ClientSession/OstrelDaemonSession.h"
#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/MainEventLoop.h"

namespace ostrel {
namespace {

using Text = OstrelDaemonSession::Text;

Mutex gPendingRequestsCountLock;
std::int32_t gPendingRequestsCount OSTREL_GUARDED_BY(gPendingRequestsCountLock) = 0;
std::atomic<bool> gDisableMultithreadedTransactions{false};

/// Counts a transaction for as long as it lives.
class PendingTransaction {
 public:
  PendingTransaction() {
    MutexLock lock(gPendingRequestsCountLock);
    if (gDisableMultithreadedTransactions) {
      for (int waits = 0; gPendingRequestsCount > 0 && waits < 1800; ++waits) {
        lock.unlock();
        Clock::current().sleepFor(std::chrono::milliseconds(100));
        lock.lock();
      }
    }
    ++gPendingRequestsCount;
  }
  ~PendingTransaction() {
    const MutexLock lock(gPendingRequestsCountLock);
    // The lock is held on purpose: no other transaction of the process starts during the pause.
    if (gDisableMultithreadedTransactions && pauses_) Clock::current().sleepFor(std::chrono::milliseconds(3000));
    --gPendingRequestsCount;
  }
  PendingTransaction(const PendingTransaction&) = delete;
  PendingTransaction& operator=(const PendingTransaction&) = delete;

  /// A daemon that broke off or talked nonsense gets a pause when transactions run one after another.
  void finishWith(const PlistValue& result) { pauses_ = result.get("RawResponse").isString(); }

 private:
  bool pauses_ = false;
};

std::optional<CommandURL> urlOf(const OstrelDaemonSessTask& task) {
  return OstrelDaemonSession::buildURL(task.request, task.URLPrefix, task.protocol, task.host, task.port, task.service);
}

}  // namespace

void OstrelDaemonSession::disableMultithreadedTransactions(bool disable, const Text& /*host*/) {
  gDisableMultithreadedTransactions = disable;
}

bool OstrelDaemonSession::areMultithreadedTransactionsDisabledForHost(const Text& /*host*/) {
  return gDisableMultithreadedTransactions;
}

void OstrelDaemonSession::Outcome::fail(const OstrelDaemonSessTask& task) {
  newBytes = 0;
  result = task.payloadType == dictionaryPayload ? PlistValue::dictionaryOf({{"error", errors::emptyResponse}})
                                                 : PlistValue(PlistData{""});
  if (failureReason) return;
  const auto url = urlOf(task);
  failureReason = format("HTTP_REQUEST_FAILED: %@: %@", url ? url->text() : std::string("nil"), "no details");
}

OstrelDaemonSession::Outcome OstrelDaemonSession::perform(const OstrelDaemonSessTask& task) {
  Outcome outcome;
  const auto url = urlOf(task);
  Text authHeader;
  if (task.userName && task.password && !task.userName->empty())
    authHeader = buildAuthorizationHeader(url, task.userName, task.password);

  Text body;
  if (!_askedToAbort && url) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      body = _sendRequestAndWaitForResponseDataWithURL(*url, authHeader, task.request, task.transactionNb,
                                                       outcome.status, outcome.sessionID, outcome.failureReason);
      if (body || !outcome.failureReason) break;
    }
  }
  if (!body || outcome.status != 1) {
    outcome.fail(task);
    return outcome;
  }
  outcome.newBytes = body->size();
  outcome.result = task.payloadType == dictionaryPayload ? buildNSDictionaryFromResponseData(*body)
                                                         : PlistValue(PlistData{std::move(*body)});
  return outcome;
}

void OstrelDaemonSession::_processOstrelDaemonSessTaskChildThread(const OstrelDaemonSessTask& task) {
  PendingTransaction pending;
  Outcome outcome = perform(task);
  if (outcome.sessionID) _setSessionID(outcome.sessionID);
  pending.finishWith(outcome.result);
  if (task.transactionNb) {
    deliver(task, outcome);
  } else {
    status_ = outcome.status;
    failureReason_ = std::move(outcome.failureReason);
    _syncResponse = outcome.result;
  }
}

// The results of asynchronous requests.

PlistValue detail::notificationDetails(const OstrelDaemonSessTask& task, std::string_view about) {
  PlistValue details = PlistValue::mutableDictionary();
  details.set("name", about);
  details.set("transactionNb", task.transactionNb.value_or(0));
  if (task.service) details.set("service", *task.service);
  return details;
}

void OstrelDaemonSession::deliver(const OstrelDaemonSessTask& task, const Outcome& outcome) {
  if (!hasNotifyTarget_ || !task.notifySelector) return;  // the request then stays pending: this is meant
  const bool cancelled = _askedToAbort;
  const bool finished = !cancelled && outcome.status == 1;
  const auto notification = std::make_shared<OstrelDaemonSessNotification>();
  notification->object = *task.notifySelector;
  PlistValue& details = notification->userInfo;
  details = detail::notificationDetails(task, cancelled  ? "ResourceDidCancelLoading"
                                              : finished ? "ResourceDidFinishLoading"
                                                         : "ResourceDidFailLoadingWithReason");
  details.set("sessionID", outcome.sessionID.value_or(""));
  details.set("status", outcome.status);
  if (finished) {
    details.set("newBytes", format("%i", static_cast<std::int64_t>(outcome.newBytes)));
    if (!outcome.result.isNull()) details.set("response", outcome.result);
  } else if (!cancelled) {
    details.set("reason", outcome.failureReason.value_or(""));
  }
  MainEventLoop::shared().runOnMainThreadAndWait([&] { _relayNotification(notification); });
}

// The synchronous interface.

PlistValue OstrelDaemonSession::sendSyncRequest(const PlistValue& request, const Text& URLPrefix,
                                                std::uint32_t payloadType) {
  const OstrelDaemonSessTask task(request, URLPrefix, payloadType, protocol_.value_or("https"), port_.value_or("311"),
                                  service_, host_, userName_, password_, sessionID(), false, nullptr, std::nullopt,
                                  std::nullopt);
  _processOstrelDaemonSessTaskChildThread(task);
  return _syncResponse;
}

PlistValue OstrelDaemonSession::authenticateInSyncMode() { return sendSyncRequest(PlistValue()); }

}  // namespace ostrel
