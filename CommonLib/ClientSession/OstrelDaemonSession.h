// A client's handle on one administration daemon.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ClientSession/CommandURL.h"
#include "ClientSession/OstrelDaemonSessTarget.h"
#include "ClientSession/OstrelDaemonSessTask.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"

namespace ostrel {

/// Where a daemon lives, which module is addressed, the credentials, the session identifier that the daemon handed
/// out, and the callback for asynchronous results; and the exchange of one command for its reply
/// (docs/wire-protocol.md).
///
/// Values: an absent string is std::nullopt. Requests and replies are PlistValue: a dictionary, or data for raw bytes;
/// null is absent.
/// Threads: `sessionID`, `_setSessionID`, `forceValidCertificate`, `useTimeoutForTransactions`, their setters and the
/// static operations may be called from any thread at any time. Everything else belongs to one thread at a time: the
/// main thread, or the single caller of the synchronous operations. Distinct sessions are independent.
/// The asynchronous requests of a session keep it: it is destroyed, on the main thread then, once its last owner has
/// let go of it and its last request has been delivered. What a callback throws is logged; otherwise nothing throws
/// except std::bad_alloc. docs/asynchronous-client.md shows the asynchronous use as a whole.
class OSTREL_EXPORT OstrelDaemonSession : public std::enable_shared_from_this<OstrelDaemonSession> {
  struct Private {
    explicit Private() = default;
  };

 public:
  using Text = std::optional<std::string>;
  using Target = std::shared_ptr<OstrelDaemonSessTarget>;

  // Construction.

  /// init: protocol "https", port "311", service "ostrel_sample", host "localhost"; nothing else is set.
  static std::shared_ptr<OstrelDaemonSession> init();
  /// initWithService:notifyTarget:notifySelector: as `init`, with the module to address and the callback.
  static std::shared_ptr<OstrelDaemonSession> initWithService(Text service, Target notifyTarget = {},
                                                              Text notifySelector = {});
  /// initWithService:notifyTarget:notifySelector:sessionID: the same with a session identifier to begin with.
  static std::shared_ptr<OstrelDaemonSession> initWithServiceSessionID(Text service, Target notifyTarget,
                                                                       Text notifySelector, Text sessionID);
  /// initWithService:notifyTarget:notifySelector:useGlobalPlexnetLock: the flag is accepted and ignored.
  static std::shared_ptr<OstrelDaemonSession> initWithServiceUseGlobalPlexnetLock(Text service, Target notifyTarget,
                                                                                  Text notifySelector,
                                                                                  bool useGlobalPlexnetLock);
  /// initWithService:notifyTarget:notifySelector:useGlobalPlexnetLock:sessionID: the flag is accepted and ignored.
  static std::shared_ptr<OstrelDaemonSession> initWithServiceUseGlobalPlexnetLockSessionID(
      Text service, Target notifyTarget, Text notifySelector, bool useGlobalPlexnetLock, Text sessionID);
  /// initWithDictionary: an empty object, without `init`'s defaults, then each of "protocol", "port", "service",
  /// "host", "userName" and "password" whose value is a string. Other values are ignored.
  static std::shared_ptr<OstrelDaemonSession> initWithDictionary(const PlistValue& dictionary);
  /// initWithCoder: as `init`, then the six values that `encodeWithCoder` wrote. Null when `coder` is not an array
  /// that begins with six such values.
  static std::shared_ptr<OstrelDaemonSession> initWithCoder(const PlistValue& coder);

  explicit OstrelDaemonSession(Private);
  ~OstrelDaemonSession();
  OstrelDaemonSession(const OstrelDaemonSession&) = delete;
  OstrelDaemonSession& operator=(const OstrelDaemonSession&) = delete;

  /// dictionary: an immutable dictionary of the same six keys, each there only when its field is. With
  /// `initWithDictionary` this is how a session is kept; identifier, flags and callback are not part of it.
  PlistValue dictionary() const;
  /// encodeWithCoder: appends protocol, port, service, host, userName and password to the array `coder`, without keys;
  /// an absent one as the boolean false. False, and nothing written, when `coder` is not a mutable array. The array
  /// can be archived with any property-list writer.
  bool encodeWithCoder(PlistValue coder) const;
  /// description: the object's class and address, host, service and user name joined with ","; the list stops at the
  /// first absent one.
  std::string description() const;

  // Settings.

  const Text& protocol() const { return protocol_; }
  const Text& port() const { return port_; }
  const Text& service() const { return service_; }
  const Text& host() const { return host_; }
  const Text& userName() const { return userName_; }
  const Text& password() const { return password_; }
  const Target& notifyTarget() const { return notifyTarget_; }
  const Text& notifySelector() const { return notifySelector_; }
  void setProtocol(Text protocol) { protocol_ = std::move(protocol); }
  void setPort(Text port) { port_ = std::move(port); }
  void setService(Text service) { service_ = std::move(service); }
  void setHost(Text host) { host_ = std::move(host); }
  void setUserName(Text userName) { userName_ = std::move(userName); }
  void setPassword(Text password) { password_ = std::move(password); }
  /// The session owns its target; see `OstrelDaemonSessTarget::weaklyReferring` for one that owns its session.
  void setNotifyTarget(Target target);
  void setNotifySelector(Text selector) { notifySelector_ = std::move(selector); }

  /// When true, the daemon's certificate must chain to a root that this host trusts, be unexpired and be made out to
  /// the URL's host. When false, the default, any certificate is accepted.
  bool forceValidCertificate() const { return forceValidCertificate_; }
  void setForceValidCertificate(bool force) { forceValidCertificate_ = force; }
  /// When true, every single read or write gives up after waiting 60 seconds in all. When false, the default, they
  /// wait for ever.
  bool useTimeoutForTransactions() const { return useTimeoutForTransactions_; }
  void setUseTimeoutForTransactions(bool use) { useTimeoutForTransactions_ = use; }

  /// The last synchronous request: 1 = completed, 3 = not completed, 0 before the first one.
  std::int32_t status() const { return status_; }
  /// Why the last synchronous request failed; absent when nothing went wrong. See docs/wire-protocol.md for the texts.
  const Text& failureReason() const { return failureReason_; }
  /// Asynchronous requests accepted and neither completed nor cancelled.
  std::int32_t pendingRequestsCount() const { return _pendingRequestsCount; }

  // Session identifier and life cycle.

  /// sessionID: a copy of the identifier that the daemon handed out last.
  Text sessionID() const OSTREL_EXCLUDES(_sessionIDLock);
  /// deauthenticate: forgets the identifier; with asynchronous requests pending, once the next result is delivered.
  void deauthenticate();
  /// didAuthenticationFail: true when the reason ends with "authorization required" in any letter case.
  static bool didAuthenticationFail(const Text& reason);
  /// deinit: detaches the callback; with asynchronous requests pending they are cancelled first.
  void deinit();

  /// disableMultithreadedTransactions:forHost: makes the transactions of all sessions of the process run one after
  /// another. The host is accepted and deliberately not used.
  static void disableMultithreadedTransactions(bool disable, const Text& host);
  /// areMultithreadedTransactionsDisabledForHost: what was set last.
  static bool areMultithreadedTransactionsDisabledForHost(const Text& host);

  // The synchronous interface (OstrelDaemonSessionSyncMethods).

  /// sendSyncRequest:withURLPrefix:withPayloadType: (also `sendSyncRequest:` and `sendSyncRequest:withURLPrefix:`)
  /// sends `request` (dictionary, data or null) to the session's module, or to the URL `URLPrefix` when that is given,
  /// and blocks for the whole exchange, up to three attempts of it. Answers a dictionary for `dictionaryPayload` and
  /// data, the reply's bytes, for any other type. Never null: a failure answers {"error": "EMPTY_RESPONSE_ERR"} or
  /// empty data. `status` and `failureReason` then tell the outcome. A broken connection counts as completed and
  /// answers {"RawResponse": "BROKEN_CONNECTION"}.
  PlistValue sendSyncRequest(const PlistValue& request, const Text& URLPrefix = {},
                             std::uint32_t payloadType = dictionaryPayload);
  /// authenticateInSyncMode: an empty request, sent to have the credentials checked and an identifier issued.
  PlistValue authenticateInSyncMode();

  // The asynchronous interface (OstrelDaemonSessionAsyncMethods), for the main thread (Platform/MainEventLoop.h).

  /// sendAsyncRequest:withURLPrefix:payloadType: (also `sendAsyncRequest:` and `sendAsyncRequest:withURLPrefix:`) is
  /// the next form with the session's own `notifySelector`.
  std::uint32_t sendAsyncRequest(const PlistValue& request, const Text& URLPrefix = {},
                                 std::uint32_t payloadType = dictionaryPayload);
  /// sendAsyncRequest:withURLPrefix:payloadType:notifySelector: issues a request and returns at once. Arguments as for
  /// `sendSyncRequest`; the request is copied. A tenth of a second later the target's operation `notifySelector` is
  /// told that it begins, then a thread of its own runs the exchange, then the operation gets the result: see
  /// `OstrelDaemonSessNotification`. All of this happens while the main event loop runs.
  ///
  /// The request's number: 1 for a session's first one. 0, and a log line, when the caller is not the main thread;
  /// nothing has changed then.
  /// While a request is pending and the session holds no identifier, further ones wait; each result starts one of them,
  /// so that the first reply can hand out the identifier. With more than 128 pending ones a request is rejected:
  /// logged, and it and all that wait are told that they begin and are cancelled. Without a target or operation a
  /// result vanishes: the request stays pending and what waits is never started.
  std::uint32_t sendAsyncRequest(const PlistValue& request, const Text& URLPrefix, std::uint32_t payloadType,
                                 const Text& notifySelector);
  /// authenticateInAsyncModeWithNotifySelector: an empty request, whose reply hands an identifier out.
  std::uint32_t authenticateInAsyncModeWithNotifySelector(const Text& notifySelector);
  /// authenticateInAsyncMode: the same with the session's `notifySelector`.
  std::uint32_t authenticateInAsyncMode();
  /// cancelAsyncRequests: with requests pending, asks them to end. What has not begun its exchange skips it; a running
  /// exchange ends with its next piece of the reply, not before; all are reported as cancelled. Nothing otherwise.
  /// Until a request starts without waiting for others, the session then sends nothing, synchronous requests included.
  void cancelAsyncRequests();
  /// canCancel: whether a request is pending.
  bool canCancel() const { return _pendingRequestsCount > 0; }

  // Helpers of the exchange.

  /// buildURL:withPrefix:protocol:host:port:service: the URL `prefix`, or else protocol "://" host ":" port
  /// "/commands/" service. The request is not used. Absent when the text is no URL (see `CommandURL::parse`).
  static std::optional<CommandURL> buildURL(const PlistValue& request, const Text& prefix, const Text& protocol,
                                            const Text& host, const Text& port, const Text& service);
  /// buildURL:withPrefix: the same with the session's settings; "https" and "311" stand in for an absent protocol and
  /// port.
  std::optional<CommandURL> buildURL(const PlistValue& request, const Text& prefix) const;
  /// buildAuthorizationHeader:withUserName:password: the value of an "Authorization" header in the Basic scheme
  /// (RFC 2617) over the UTF-8 bytes of both. Absent when any argument is.
  static Text buildAuthorizationHeader(const std::optional<CommandURL>& url, const Text& userName,
                                       const Text& password);
  /// buildAuthorizationHeader: the same with the session's user name and password.
  Text buildAuthorizationHeader(const std::optional<CommandURL>& url) const;
  /// encodeRequest: the form body for a request: "input=" and the escaped text of the XML property list, or of the
  /// bytes. "" when the request is null, empty data, not valid UTF-8 or cannot be serialised.
  static std::string encodeRequest(const PlistValue& request);
  /// buildNSDictionaryFromResponseData: the dictionary that a reply's body holds; {"RawResponse": text} for any other
  /// UTF-8 text; an empty dictionary for other bytes; null for absent ones.
  static PlistValue buildNSDictionaryFromResponseData(std::optional<std::string_view> bytes);
  /// zeroConfName: the name of this host on the local link, ending ".local"; absent when it has none.
  static Text zeroConfName();
  /// defaultHostNameWithResolve: the name (with `resolve`) of this host's first IPv4 address other than 127.0.0.1, else
  /// `zeroConfName`, else "127.0.0.1". May block on the host's resolver.
  static std::string defaultHostNameWithResolve(bool resolve);

  // Internal: for the transport and the asynchronous machinery.

  /// _setSessionID: replaces the identifier; absent clears it.
  void _setSessionID(Text sessionID) OSTREL_EXCLUDES(_sessionIDLock);
  void _setStatus(std::int32_t status) { status_ = status; }
  void _setFailureReason(Text reason) { failureReason_ = std::move(reason); }

  /// _sendRequestAndWaitForResponseDataWithURL:authHeader:request:transactionNb:status:sessionID:failureReason:
  /// One exchange on a connection of its own: no retry. Answers the reply's body, or nothing; `transactionNb` is not
  /// used. `status` gets 1 (completed) or 3, the others the identifier received and why it failed, or nothing.
  Text _sendRequestAndWaitForResponseDataWithURL(const CommandURL& url, const Text& authHeader,
                                                 const PlistValue& request, std::optional<std::uint32_t> transactionNb,
                                                 std::int32_t& status, Text& sessionID, Text& failureReason);
  /// _processOstrelDaemonSessTask: starts a task: its begin notification, "kStartingTransactionNotif" and its thread.
  void _processOstrelDaemonSessTask(const std::shared_ptr<OstrelDaemonSessTask>& task);
  /// _processOstrelDaemonSessTaskChildThread: the whole transaction of a task, on the calling thread: attempts, the
  /// process-wide count and the result: in this session for a synchronous task, otherwise handed to the main thread,
  /// which it waits for.
  void _processOstrelDaemonSessTaskChildThread(const OstrelDaemonSessTask& task);
  /// _relayNotification: gives a result to the target's operation that the notification's object names, posts
  /// "kCompletedTransactionNotif" and starts or cancels what waits. Main thread.
  void _relayNotification(const std::shared_ptr<OstrelDaemonSessNotification>& notification);
  /// _cancelPendingRequestsWithSendBeginNotification: tells all waiting requests that they are cancelled (with the flag
  /// that they begin, too) and forgets them. Main thread.
  void _cancelPendingRequestsWithSendBeginNotification(bool sendBeginNotification);

 private:
  using TaskList = std::list<std::shared_ptr<OstrelDaemonSessTask>>;
  struct Outcome;

  Outcome perform(const OstrelDaemonSessTask& task);
  void deliver(const OstrelDaemonSessTask& task, const Outcome& outcome);
  void startSoon(const std::shared_ptr<OstrelDaemonSessTask>& task);
  void startThread(const std::shared_ptr<OstrelDaemonSessTask>& task);
  std::shared_ptr<OstrelDaemonSessTask> takeFirstWaiting();
  void cancelTasks(const TaskList& tasks, bool sendBeginNotification);
  OstrelDaemonSessNotification notificationOf(const std::shared_ptr<OstrelDaemonSessTask>& task,
                                              std::string_view about);

  Text protocol_;
  Text port_;
  Text service_;
  Text host_;
  Text userName_;
  Text password_;
  Target notifyTarget_;
  std::atomic<bool> hasNotifyTarget_{false};  // for the worker threads
  Text notifySelector_;
  std::atomic<bool> forceValidCertificate_{false};
  std::atomic<bool> useTimeoutForTransactions_{false};
  std::int32_t status_ = 0;
  Text failureReason_;
  mutable Mutex _sessionIDLock;
  Text _sessionID OSTREL_GUARDED_BY(_sessionIDLock);
  // From here on: state of the asynchronous requests. The flags are hints that running exchanges poll.
  std::int32_t _transactionNb = 0;
  std::atomic<std::int32_t> _pendingRequestsCount{0};
  std::atomic<bool> _askedToAbort{false};
  std::atomic<bool> _releaseNotifyTarget{false};
  TaskList _ostrelDaemonSessTasks;
  bool cancelling_ = false;
  PlistValue _syncResponse;
  std::atomic<bool> _askedToDeauthenticate{false};
  // Only for a platform that cannot run an operation on the main thread: never here.
  bool _usePortConnectionForThreadCom = false;
};

}  // namespace ostrel
