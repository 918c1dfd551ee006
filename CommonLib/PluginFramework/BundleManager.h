// BundleManager: the plug-in host, which loads the modules and runs requests against them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"
#include "PluginFramework/ContextStore.h"

namespace ostrel {

class BackgroundThreads;
class ModuleBundle;
class PluginRequestHandler;
struct Notification;

/// The plug-in host. It keeps one handler for each module and the cache of the modules' contexts.
///
/// Threads: every operation may be called from any thread, concurrently. Two requests for one module are serialised by
/// the lock of its context file, also against other processes; requests for different modules run side by side.
///
/// What modules throw never leaves the host. The one exception that does is ContextError.
class OSTREL_EXPORT BundleManager {
 public:
  /// A directory entry that gave no module, and why.
  struct LoadFailure {
    std::string path;
    std::string reason;
  };

  /// `init`: loads every bundle of "/usr/share/ostreld/bundles/"; the module's name is the entry's up to its first
  /// ".". What fails to load is skipped without a log line: see `loadFailures`. Verbose diagnostics are on when
  /// "/var/tmp/ostrel_plugin_debug" exists now.
  BundleManager();
  /// `initWithBundle:`: loads the bundle "NAME.bundle" only. Such a host keeps no list of outstanding requests.
  explicit BundleManager(std::string_view moduleName);
  /// Waits for its background threads, then destroys the handlers.
  virtual ~BundleManager();
  BundleManager(const BundleManager&) = delete;
  BundleManager& operator=(const BundleManager&) = delete;

  /// The host of the process, made by the first call and kept for its life: it is never destroyed, since requests may
  /// still run while the process exits. A module's constructor must not call it.
  static BundleManager& defaultManager();
  /// `managerForBundle:`: the host of the process when there is one already, whatever the module; otherwise a new one
  /// for that module alone.
  static std::shared_ptr<BundleManager> managerForBundle(std::string_view moduleName);

  // Modules: never change after construction.

  /// Sorted without regard to case.
  std::vector<std::string> moduleNames() const;
  /// `getPrincipalClass:`: the handler of a module, or nullptr. The host owns it.
  PluginRequestHandler* getPrincipalClass(std::string_view name) const;
  /// `getBundle:`: the bundle that a module came from, or nullptr.
  const ModuleBundle* getBundle(std::string_view name) const;
  /// In the order of loading. For the daemon to tell at its start.
  const std::vector<LoadFailure>& loadFailures() const noexcept { return loadFailures_; }

  // Requests.

  /// `doCommand:withModule:forUser:`: runs a request against a module, with its context locked. `user` is a string or
  /// null. Waits while another request holds the module's context: see `getAndLockContext`.
  ///
  /// The module's response, or {"error": code}: CANNOT_LOAD_BUNDLE_ERR no such module; CANNOT_RUN_BUNDLE_ERR no lock
  /// on its context; UNEXPECTED_COMMAND no answer; "NIL_RESPONSE_ERR (text)" the module threw. Null when it threw
  /// something that has no description.
  /// A "setState" request is announced afterwards by the notification "setState" on a thread of its own: object the
  /// module, userInfo {"bundle", "stateCommand", "state"}, ending at the first that is absent.
  /// Throws ContextError as `getAndLockContext` does; the request then stays among the outstanding ones.
  PlistValue doCommand(const PlistValue& request, std::string_view module, const PlistValue& user);

  /// `postCommandNotification:`: posts to the process's notification centre; what an observer throws is logged.
  void postCommandNotification(const Notification& notification);

  /// `addMarker:` and `removeMarker:`: the list of outstanding requests; markers are dictionaries, removed by identity.
  void addMarker(const PlistValue& marker);
  void removeMarker(const PlistValue& marker);
  /// A new array of the markers {"Module", "Timestamp", "Command", "Request"} of the requests that run now.
  PlistValue CopyOutstandingRequests() const;

  /// Waits until the notifications that were started are posted, at most for `limit` of real time. True when no
  /// background thread is left. For a clean stop.
  bool finishBackgroundWork(std::chrono::milliseconds limit);

  // Contexts: see ContextStore.h.

  /// `getAndLockContext:outFileDescriptor:timedout:`: the module's context, locked, from the cache while the file is
  /// not newer, in whole seconds: what another process wrote in the second of this host's own last use is not seen, and
  /// gone with its next write. `*outFileDescriptor` is the open file. Tries for the lock every 100 ms: 1,200 times,
  /// 9,000 for the modules "ostrel_accounts", "ostrel_mail", "ostrel_print", "ostrel_swupdate" and "ostrel_web"; then
  /// writes the deadlock report and ends the process. Null with `*timedout` true when the file cannot be opened; a name
  /// with "/" or NUL in it names no file. Throws ContextError, keeping the lock, when the status of the locked file
  /// cannot be read.
  PlistValue getAndLockContext(std::string_view module, int* outFileDescriptor, bool* timedout);
  /// `setAndUnlockContext:forModule:inoutFileDescriptor:`: writes the context back if it is dirty (without "_user_"),
  /// renews its cache entry, unlocks and closes; the descriptor becomes -1. Does nothing when it is -1 already.
  void setAndUnlockContext(const PlistValue& context, std::string_view module, int* inoutFileDescriptor);
  /// `updateContextCache:`: refreshes the cache entry of a module from its file.
  void updateContextCache(std::string_view module);

  // Watchdog.

  /// Whether a forced quit crashes the process on purpose, for the crash report, instead of ending it with status 1.
  void setCrashOnHangTimeout(bool crash) noexcept { crashOnHangTimeout = crash; }
  /// Suspends the idle pass over all modules.
  void setSleepMode(bool sleep) noexcept { sleepMode = sleep; }
  /// Ends the process at once, without running destructors: other threads hang, and nothing may wait for them.
  /// Virtual so that a host can be watched where the process must live on.
  virtual void forceQuitNow_PleaseLookAtHungThreadAndNotThisThread();

 private:
  struct CacheEntry {
    PlistValue context;
    std::int64_t contextModDate = 0;  // whole seconds since 1970
  };
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>()(name); }
  };
  template <class Value>
  using ByModule = std::unordered_map<std::string, Value, NameHash, std::equal_to<>>;

  void loadBundle(const std::string& path, const std::string& moduleName);
  PlistValue runInContext(const PlistValue& request, std::string_view module, const PlistValue& user);
  PlistValue runRequest(PluginRequestHandler& handler, const PlistValue& request, std::string_view module,
                        const PlistValue& context, int* lockFileFD);
  void announceStateChange(const PlistValue& request, std::string_view module, const PlistValue& response);
  bool lockContextFile(std::string_view module, int* outFileDescriptor);
  PlistValue cachedContext(std::string_view module, std::int64_t fileDate);
  void reportDeadlockAndQuit(std::string_view module);

  ByModule<std::unique_ptr<PluginRequestHandler>> modules;
  ByModule<std::shared_ptr<ModuleBundle>> bundles;
  Mutex contextLock;
  ByModule<CacheEntry> contexts OSTREL_GUARDED_BY(contextLock);
  mutable Mutex requestsLock;
  Mutex mtLock;
  PlistValue outstandingRequests OSTREL_GUARDED_BY(requestsLock);  // null: a single-module host keeps none
  std::atomic<bool> crashOnHangTimeout = false;
  bool plugInLogging = false;
  std::atomic<bool> sleepMode = false;

  std::vector<LoadFailure> loadFailures_;
  std::unique_ptr<BackgroundThreads> background_;
};

/// `Redact`: an array of the same markers, from each of which "Request" has been removed, so that a report holds no
/// arguments. The markers are shared: the outstanding requests lose theirs too. For a process about to quit.
OSTREL_EXPORT PlistValue Redact(const PlistValue& markers);

/// Writes the deadlock report, one structured record of the system log: redacts the markers, and tells them, the module
/// and the state of the heap.
OSTREL_EXPORT void LogDeadlockToMessageTracer(const PlistValue& markers, std::string_view module);

}  // namespace ostrel
