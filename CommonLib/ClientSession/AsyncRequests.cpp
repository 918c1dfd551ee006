// Asynchronous requests, the main thread's side: issuing, starting, relaying results, cancelling what waits.
#include <cxxabi.h>
#include <signal.h>

#include <chrono>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "ClientSession/Internal/TransactionOutcome.h"
#include "ClientSession/OstrelDaemonSession.h"
#include "Platform/MainEventLoop.h"
#include "Platform/NotificationCenter.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

using Text = OstrelDaemonSession::Text;

/// More pending requests than this mean that something hangs.
constexpr std::int32_t pendingLimit = 128;
constexpr std::chrono::milliseconds startDelay{100};

/// Runs what belongs to the client. A client's exception must leave neither the steps around the call nor a worker that
/// waits for them undone.
template <class Call>
void callClient(std::string_view what, Call call) {
  try {
    call();
  } catch (abi::__forced_unwind&) {
    throw;  // the thread is being ended
  } catch (const std::exception& exception) {
    logNotice("[%d] Ostrel session callback %s raised an exception: %s\n", processId(), what, exception.what());
  } catch (...) {
    logNotice("[%d] Ostrel session callback %s raised an exception\n", processId(), what);
  }
}

/// Calls the operation if there is a target that has it.
void callTarget(const OstrelDaemonSession::Target& target, const Text& operation,
                OstrelDaemonSessNotification& notification) {
  if (target == nullptr || !operation) return;
  callClient(*operation, [&] {
    if (target->respondsTo(*operation)) target->perform(*operation, notification);
  });
}

void post(const char* name, std::shared_ptr<void> payload) {
  callClient(name, [&] {
    Notification notification;
    notification.name = name;
    notification.payload = std::move(payload);
    NotificationCenter::defaultCenter().postNotification(notification);
  });
}

/// Signals are for the program's own threads: one that interrupted an exchange would end it.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t previous_{};
};

std::string_view shown(const Text& text) { return text ? std::string_view(*text) : "(null)"; }

}  // namespace

// Issuing.

std::uint32_t OstrelDaemonSession::sendAsyncRequest(const PlistValue& request, const Text& URLPrefix,
                                                    std::uint32_t payloadType) {
  return sendAsyncRequest(request, URLPrefix, payloadType, notifySelector_);
}

std::uint32_t OstrelDaemonSession::sendAsyncRequest(const PlistValue& request, const Text& URLPrefix,
                                                    std::uint32_t payloadType, const Text& notifySelector) {
  if (!MainEventLoop::shared().isMainThread()) {
    logNotice("[%d] Only the main thread may call -[OstrelDaemonSession sendAsyncRequest:]\n", processId());
    return 0;
  }
  const std::uint32_t number = static_cast<std::uint32_t>(_transactionNb) + 1;
  _transactionNb = static_cast<std::int32_t>(number);
  const Text identifier = sessionID();
  // A copy of the request, because a thread of its own reads it while the caller may go on changing it.
  auto task = std::make_shared<OstrelDaemonSessTask>(
      request.deepMutableCopy(), URLPrefix, payloadType, protocol_.value_or("https"), port_.value_or("311"), service_,
      host_, userName_, password_, identifier, false, nullptr, notifySelector, number);

  if (_pendingRequestsCount > pendingLimit) {
    logNotice("[%d] Ostrel session rejected request for %s/%s (stuck thread?)\n", processId(), shown(host_),
              shown(service_));
    ++_pendingRequestsCount;
    _ostrelDaemonSessTasks.push_back(std::move(task));
    _cancelPendingRequestsWithSendBeginNotification(true);
    return number;
  }
  if (_pendingRequestsCount > 0 && !identifier) {
    ++_pendingRequestsCount;
    _ostrelDaemonSessTasks.push_back(std::move(task));
    return number;
  }
  ++_pendingRequestsCount;
  startSoon(task);
  return number;
}

void OstrelDaemonSession::startSoon(const std::shared_ptr<OstrelDaemonSessTask>& task) {
  _askedToAbort = false;
  MainEventLoop::shared().callAfter(startDelay,
                                    [self = shared_from_this(), task] { self->_processOstrelDaemonSessTask(task); });
}

std::uint32_t OstrelDaemonSession::authenticateInAsyncModeWithNotifySelector(const Text& notifySelector) {
  return sendAsyncRequest(PlistValue(), std::nullopt, dictionaryPayload, notifySelector);
}

std::uint32_t OstrelDaemonSession::authenticateInAsyncMode() {
  return authenticateInAsyncModeWithNotifySelector(notifySelector_);
}

// Starting.

OstrelDaemonSessNotification OstrelDaemonSession::notificationOf(const std::shared_ptr<OstrelDaemonSessTask>& task,
                                                                 std::string_view about) {
  OstrelDaemonSessNotification notification;
  notification.task = task;
  notification.sender = shared_from_this();
  notification.userInfo = detail::notificationDetails(*task, about);
  return notification;
}

void OstrelDaemonSession::_processOstrelDaemonSessTask(const std::shared_ptr<OstrelDaemonSessTask>& task) {
  auto notification = notificationOf(task, "ResourceDidBeginLoading");
  callTarget(Target(notifyTarget_), task->notifySelector, notification);
  post(kStartingTransactionNotif, task);
  startThread(task);
}

void OstrelDaemonSession::startThread(const std::shared_ptr<OstrelDaemonSessTask>& task) {
  auto body = [self = shared_from_this(), task]() mutable {
    self->_processOstrelDaemonSessTaskChildThread(*task);
    // The session may go with this reference, and its target with it: both belong to the main thread.
    MainEventLoop::shared().callAfter({}, [session = std::move(self)] {});
  };
  try {
    const BlockedSignals blocked;
    std::thread(std::move(body)).detach();
  } catch (const std::system_error&) {
    // No thread to be had: the request has begun, so its failure is delivered like any other, in the loop's next round.
    Outcome outcome;
    outcome.fail(*task);
    MainEventLoop::shared().callAfter({},
                                      [self = shared_from_this(), task, outcome] { self->deliver(*task, outcome); });
  }
}

// Relaying.

void OstrelDaemonSession::_relayNotification(const std::shared_ptr<OstrelDaemonSessNotification>& notification) {
  const auto self = shared_from_this();  // the callback may let go of the last reference
  const Target target = notifyTarget_;
  const bool someWaited = !_ostrelDaemonSessTasks.empty();
  --_pendingRequestsCount;
  notification->sender = self;
  callTarget(target, notification->object, *notification);
  post(kCompletedTransactionNotif, notification);
  if (_askedToDeauthenticate) {
    _setSessionID(std::nullopt);
    _askedToDeauthenticate = false;
  }
  if (someWaited && _askedToAbort) {
    _cancelPendingRequestsWithSendBeginNotification(true);
  } else if (someWaited && !_ostrelDaemonSessTasks.empty()) {  // the callback may have had them cancelled
    // Off the list first: the callback that hears of its begin may cancel what is on it.
    _processOstrelDaemonSessTask(takeFirstWaiting());
  }
  if (_releaseNotifyTarget) setNotifyTarget(nullptr);
}

std::shared_ptr<OstrelDaemonSessTask> OstrelDaemonSession::takeFirstWaiting() {
  auto task = std::move(_ostrelDaemonSessTasks.front());
  _ostrelDaemonSessTasks.pop_front();
  return task;
}

// Cancelling.

void OstrelDaemonSession::cancelAsyncRequests() {
  if (canCancel()) _askedToAbort = true;
}

void OstrelDaemonSession::_cancelPendingRequestsWithSendBeginNotification(bool sendBeginNotification) {
  TaskList tasks;
  tasks.swap(_ostrelDaemonSessTasks);
  if (!cancelling_) return cancelTasks(tasks, sendBeginNotification);
  // A callback that hears of a cancelled request has issued another one, which was rejected. Told at once, such
  // callbacks would nest without end.
  MainEventLoop::shared().callAfter({}, [self = shared_from_this(), tasks = std::move(tasks), sendBeginNotification] {
    self->cancelTasks(tasks, sendBeginNotification);
  });
}

void OstrelDaemonSession::cancelTasks(const TaskList& tasks, bool sendBeginNotification) {
  const auto self = shared_from_this();
  cancelling_ = true;
  for (const auto& task : tasks) {
    const Target target = notifyTarget_;
    if (sendBeginNotification) {
      auto begin = notificationOf(task, "ResourceDidBeginLoading");
      callTarget(target, task->notifySelector, begin);
    }
    auto cancel = notificationOf(task, "ResourceDidCancelLoading");
    cancel.userInfo.set("sessionID", "");
    cancel.userInfo.set("status", 3);
    callTarget(target, task->notifySelector, cancel);
    --_pendingRequestsCount;
  }
  cancelling_ = false;
  // What a callback has sent meanwhile waits for a result that starts it; when none is to come, it starts by itself.
  const bool someWait = !_ostrelDaemonSessTasks.empty();
  if (someWait && static_cast<std::size_t>(_pendingRequestsCount) == _ostrelDaemonSessTasks.size())
    startSoon(takeFirstWaiting());
}

}  // namespace ostrel
