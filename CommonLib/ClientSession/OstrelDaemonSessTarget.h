// The callback of a session: an object and, by name, one of its operations.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

class OstrelDaemonSession;
class OstrelDaemonSessTask;

/// The name of every session notification; what it is about is its entry "name".
inline constexpr const char* kOstrelDaemonSessNotif = "kOstrelDaemonSessNotif";
/// Posted to `NotificationCenter::defaultCenter` on the main thread when an asynchronous request starts. The payload is
/// its OstrelDaemonSessTask.
inline constexpr const char* kStartingTransactionNotif = "kStartingTransactionNotif";
/// Posted after each result has been given to the callback. The payload is the OstrelDaemonSessNotification.
inline constexpr const char* kCompletedTransactionNotif = "kCompletedTransactionNotif";

/// What a callback is told: a name, an object and a mutable dictionary of details. `userInfo` holds:
///
/// | key             | value                                                                                |
/// |-----------------|--------------------------------------------------------------------------------------|
/// | "name"          | "ResourceDidBeginLoading", "ResourceDidFinishLoading",                               |
/// |                 | "ResourceDidFailLoadingWithReason" or "ResourceDidCancelLoading"                     |
/// | "transactionNb" | the request's number                                                                 |
/// | "service"       | the module (string)                                                                  |
/// | "sessionID"     | all but begin: the identifier that came with this result, or ""                      |
/// | "status"        | all but begin: 1 completed, 3 not completed                                          |
/// | "newBytes"      | finish: the byte count of the reply's body, as decimal text                          |
/// | "response"      | finish: the result, a dictionary or data; absent when there is none                  |
/// | "reason"        | fail: why, or "" (`OstrelDaemonSession::didAuthenticationFail` looks at it)          |
struct OstrelDaemonSessNotification {
  std::string name = kOstrelDaemonSessNotif;
  std::string object = {};                           ///< of a result: the name of the operation that is called
  std::shared_ptr<OstrelDaemonSessTask> task = {};   ///< of a begin, and of what never started: its task; else null
  std::shared_ptr<OstrelDaemonSession> sender = {};  ///< "sender": the session
  PlistValue userInfo = PlistValue::mutableDictionary();
};

/// The target of a session's notifications. Its operations are known by their run-time names.
///
/// An operation may use its session as it likes: send, cancel, detach itself, let go of it. What it throws is logged
/// and changes nothing.
class OSTREL_EXPORT OstrelDaemonSessTarget {
 public:
  virtual ~OstrelDaemonSessTarget() = default;
  /// Whether the target has an operation of that name.
  virtual bool respondsTo(std::string_view operation) const = 0;
  /// Calls the operation. Requires: `respondsTo(operation)`. Called on the main thread only.
  virtual void perform(std::string_view operation, OstrelDaemonSessNotification& notification) = 0;

  /// A target that passes everything on to `target` for as long as that one lives, and has no operation afterwards. For
  /// an object that owns its session: the session owns its target, and the two would keep one another.
  static std::shared_ptr<OstrelDaemonSessTarget> weaklyReferring(std::weak_ptr<OstrelDaemonSessTarget> target);
};

}  // namespace ostrel
