// One transaction of a session: its place among those of the process, its attempts, its result.
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "ClientSession/OstrelDaemonSession.h"
#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Platform/Clock.h"

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

struct Outcome {
  std::int32_t status = 3;
  Text sessionID;
  Text failureReason;
  PlistValue result;
  std::size_t newBytes = 0;  ///< bytes of the reply's body
};

void settleResult(Outcome& outcome, const Text& body, const OstrelDaemonSessTask& task,
                  const std::optional<CommandURL>& url) {
  const bool wantsDictionary = task.payloadType == dictionaryPayload;
  if (body && outcome.status == 1) {
    outcome.newBytes = body->size();
    outcome.result =
        wantsDictionary ? OstrelDaemonSession::buildNSDictionaryFromResponseData(*body) : PlistValue(PlistData{*body});
    return;
  }
  outcome.result =
      wantsDictionary ? PlistValue::dictionaryOf({{"error", errors::emptyResponse}}) : PlistValue(PlistData{""});
  if (!outcome.failureReason) {
    outcome.failureReason = format("HTTP_REQUEST_FAILED: %@: %@", url ? url->text() : std::string("nil"), "no details");
  }
}

}  // namespace

void OstrelDaemonSession::disableMultithreadedTransactions(bool disable, const Text& /*host*/) {
  gDisableMultithreadedTransactions = disable;
}

bool OstrelDaemonSession::areMultithreadedTransactionsDisabledForHost(const Text& /*host*/) {
  return gDisableMultithreadedTransactions;
}

void OstrelDaemonSession::_processOstrelDaemonSessTaskChildThread(const OstrelDaemonSessTask& task) {
  PendingTransaction pending;
  Outcome outcome;
  const auto url = buildURL(task.request, task.URLPrefix, task.protocol, task.host, task.port, task.service);
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
  settleResult(outcome, body, task, url);
  if (outcome.sessionID) _setSessionID(outcome.sessionID);
  if (!task.transactionNb) {
    status_ = outcome.status;
    failureReason_ = std::move(outcome.failureReason);
    _syncResponse = outcome.result;
  }
  pending.finishWith(outcome.result);
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
