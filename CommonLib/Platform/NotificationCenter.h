// Notifications within the process: observers register for a name, posting calls them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"

namespace ostrel {

struct OSTREL_EXPORT Notification {
  std::string name = {};
  PlistValue object = {};    ///< the sender as a value (a module's name); null when there is none
  PlistValue userInfo = {};  ///< a dictionary; null when there is none
  /// What is no property-list value travels here; poster and observers of the name agree on the type.
  std::shared_ptr<void> payload = {};

  /// One line for logs: name, object and userInfo.
  std::string description() const;
};

/// Threads: every operation may be called from any thread, also from inside a callback.
class OSTREL_EXPORT NotificationCenter {
 public:
  using Callback = std::function<void(const Notification&)>;

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// The centre of the process. It is never destroyed.
  static NotificationCenter& defaultCenter();

  /// Calls `callback` for each notification of that name ("": of any name) that is posted from now on; with an object
  /// that is not null, only for those whose object equals it. `observer` is an identity and never followed; it may
  /// register any number of times, and each registration is called.
  void addObserver(const void* observer, const std::string& name, Callback callback, PlistValue object = {});

  /// Ends every registration of the observer (or those for `name`, spelled as it was registered).
  ///
  /// When it returns, none of its callbacks runs on another thread, and none will be called any more: it waits for
  /// those that run. So the caller must hold no lock that such a callback takes, and two observers must not remove one
  /// another from inside their callbacks. Called from inside a callback of the same observer it does not wait, so
  /// that an observer can remove itself; calls on other threads may then still be running.
  void removeObserver(const void* observer) { remove(observer, nullptr); }
  void removeObserver(const void* observer, const std::string& name) { remove(observer, &name); }

  /// Calls the observers that are registered now, in the order of their registration, on this thread, holding no lock.
  /// An exception of an observer passes to the caller; the observers after it are then not called.
  void postNotification(const Notification& notification);

 private:
  struct Registration {
    const void* observer;
    std::string name;
    PlistValue object;
    Callback callback;
    bool removed = false;  // guarded by mutex_
  };
  struct RunningCall {
    std::shared_ptr<Registration> registration;
    std::thread::id thread;
  };
  class Call;

  void remove(const void* observer, const std::string* name);

  Mutex mutex_;
  Condition callEnded_;
  std::vector<std::shared_ptr<Registration>> registrations_ OSTREL_GUARDED_BY(mutex_);
  std::vector<RunningCall> running_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel
