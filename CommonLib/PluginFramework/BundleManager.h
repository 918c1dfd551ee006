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
class BatchResults;
class ModuleBundle;
class PluginRequestHandler;
struct Notification;
namespace detail {
class LimitedWaits;
}

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
  /// `dealloc`: waits for its background threads, then destroys the handlers.
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
  /// The same without "Request", as copies that nobody else changes: a deadlock report redacts the markers themselves.
  PlistValue outstandingRequestsWithoutArguments() const;

  /// Waits until the notifications that were started are posted, at most for `limit` of real time. True when no
  /// background thread is left. For a clean stop.
  bool finishBackgroundWork(std::chrono::milliseconds limit);

  // Batch requests.

  struct BatchItem;
  /// Told of each command of a batch once it has its response, on the thread that ran it. Must not throw: that would
  /// count as a hang.
  using BatchObserver =
      std::function<void(const BatchItem& item, const PlistValue& response, std::chrono::nanoseconds duration)>;

  /// The work of one thread of a batch.
  struct BatchItem {
    std::shared_ptr<BatchResults> results;  ///< the condition lock and the responses, shared by the batch
    PlistValue request;
    PlistValue module;
    PlistValue user;
    BatchObserver observer;
  };

  /// `doBatchCommand:forUser:`: runs the commands of {"requestsArray": [{"name": module, "request": request}, ...],
  /// "sendResponsesAsDictionary": boolean} side by side, each with `doCommand` on a new thread, and waits for all of
  /// them. The caller bounds their number. Where the system gives no more threads, a command runs on this one.
  ///
  /// {"responsesArray": [{"response", "name", "command"}, ...]} in the order of completion, each ending before its
  /// first null; or a dictionary of dictionaries, module to command to response, where the later one wins and what has
  /// no text for its name or command is left out. Null at once when the array is absent or no array, or at the first
  /// member that is no dictionary: those before it run on. A batch that is not complete after 900 seconds ends the
  /// process (see Watchdog); so does, then, one in which `doCommand` threw.
  PlistValue doBatchCommand(const PlistValue& request, const PlistValue& user, const BatchObserver& observer = {});
  /// `doOneBatchCommand:`: the body of such a thread. It goes on for up to 5 seconds after its response, unless the
  /// host waits for its background threads or many go on so already.
  void doOneBatchCommand(const BatchItem& item);

  // Idle processing: the handlers' `doIdleAtCount`, on the calling thread.

  /// `doIdle`: calls every module in turn, with its context locked, and with the count of such passes of the process
  /// before this one. A pass ends at the first context that cannot be locked, and, with a log line, where
  /// `getAndLockContext` throws; the marker then stays. Nothing happens, and nothing is counted, in sleep mode.
  void doIdle();
  /// `doIdle:`: the same for one module, in sleep mode as well, with a count of its own. Throws ContextError as
  /// `getAndLockContext` does; the marker then stays.
  void doIdle(std::string_view module);

  // Contexts: see ContextStore.h.

  /// `getAndLockContext:outFileDescriptor:timedout:`: the module's context, locked, from the cache while the file is
  /// not newer, in whole seconds: what another process wrote in the second of this host's own last use is not seen, and
  /// gone with its next write. `*outFileDescriptor` is the open file. Tries for the lock every 100 ms: 1,200 times,
  /// 9,000 for the modules "ostrel_accounts", "ostrel_mail", "ostrel_print", "ostrel_swupdate" and "ostrel_web"; then
  /// writes the deadlock report and ends the process. A wait of 10 seconds is logged once, with the request of this
  /// process that had the lock last, if it still runs. Null with `*timedout` true when the file cannot be opened; a
  /// name with "/" or NUL in it names no file. Throws ContextError, keeping the lock, when the status of the locked
  /// file cannot be read.
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
  /// How far the wait for a context or a batch that is furthest beyond its limit is beyond it; zero as long as none is.
  /// More than a moment means that not even the forced quit came through.
  std::chrono::nanoseconds longestOverrun() const;
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
  PlistValue runInContext(const PlistValue& request, std::string_view module, const PlistValue& user,
                          const PlistValue& marker);
  PlistValue runRequest(PluginRequestHandler& handler, const PlistValue& request, std::string_view module,
                        const PlistValue& context, int* lockFileFD);
  void announceStateChange(const PlistValue& request, std::string_view module, const PlistValue& response);
  void startBatchItem(const BatchItem& item);
  void runBatchItem(const BatchItem& item);
  bool lockContextFile(std::string_view module, int* outFileDescriptor);
  void noteContextHolder(std::string_view module, const PlistValue& marker);
  std::string contextHolder(std::string_view module) const;
  void warnOfLongWait(std::string_view module) const;
  std::string describeOutstandingRequests() const;
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

  // The outstanding request that had a module's context last; it may have let go of it.
  ByModule<PlistValue> contextHolders_ OSTREL_GUARDED_BY(requestsLock);
  std::vector<LoadFailure> loadFailures_;
  std::unique_ptr<detail::LimitedWaits> waits_;
  std::unique_ptr<BackgroundThreads> background_;
};

/// `Redact`: an array of the same markers, from each of which "Request" has been removed, so that a report holds no
/// arguments. The markers are shared: the outstanding requests lose theirs too. For a process about to quit.
OSTREL_EXPORT PlistValue Redact(const PlistValue& markers);

/// Writes the deadlock report, one structured record of the system log: redacts the markers, and tells them, the module
/// and the state of the heap.
OSTREL_EXPORT void LogDeadlockToMessageTracer(const PlistValue& markers, std::string_view module);

}  // namespace ostrel
