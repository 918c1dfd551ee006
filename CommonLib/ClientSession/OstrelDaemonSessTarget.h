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

/// What a callback is told: a name, an object and a mutable dictionary of details.
struct OstrelDaemonSessNotification {
  std::string name;
  std::string object;                           ///< of a result: the name of the operation that is called
  std::shared_ptr<OstrelDaemonSessTask> task;   ///< of a begin or cancel notification: its task; else null
  std::shared_ptr<OstrelDaemonSession> sender;  ///< the session, once it is known
  PlistValue userInfo = PlistValue::mutableDictionary();
};

/// The target of a session's notifications. Its operations are known by their run-time names.
class OSTREL_EXPORT OstrelDaemonSessTarget {
 public:
  virtual ~OstrelDaemonSessTarget() = default;
  /// Whether the target has an operation of that name.
  virtual bool respondsTo(std::string_view operation) const = 0;
  /// Calls the operation. Requires: `respondsTo(operation)`. Called on the main thread only.
  virtual void perform(std::string_view operation, OstrelDaemonSessNotification& notification) = 0;
};

}  // namespace ostrel
