// Idle processing: the periodic call of every module's handler, with its context locked.
#include <atomic>
#include <string>
#include <string_view>

#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"
#include "PluginFramework/Envelope.h"
#include "PluginFramework/Internal/ModuleException.h"
#include "PluginFramework/PluginRequestHandler.h"

namespace ostrel {
namespace {

// Of the process: all hosts count together.
std::atomic<int> countOfPasses = 0;
std::atomic<int> countOfSingleCalls = 0;

PlistValue idleMarker(std::string_view module) {
  return PlistValue::mutableDictionaryOf(
      {{"Module", module}, {"Timestamp", Clock::current().now()}, {"Command", "Idle"}});
}

/// The command line of an idle call: program, "idle", the count.
class IdleArguments {
 public:
  explicit IdleArguments(int count) : count_(format("%d", count)), words_{"ostreld", "idle", count_.c_str(), nullptr} {}
  IdleArguments(const IdleArguments&) = delete;
  IdleArguments& operator=(const IdleArguments&) = delete;
  void giveTo(PluginRequestHandler& handler, const PlistValue& context, int* lockFileFD) const {
    handler.doProcessArgsWithArgc(3, words_, context, lockFileFD);
  }

 private:
  const std::string count_;
  const char* const words_[4];
};

}  // namespace

void BundleManager::doIdle() {
  if (sleepMode) return;
  try {
    const int count = countOfPasses++;
    if (plugInLogging) logNotice("[%d] Starting idle processing: count = %d", processId(), count);
    const IdleArguments arguments(count);
    for (const auto& [module, handler] : modules) {
      const PlistValue marker = idleMarker(module);
      addMarker(marker);
      int lockFileFD = -1;
      bool timedOut = false;
      const PlistValue context = getAndLockContext(module, &lockFileFD, &timedOut);
      if (timedOut) {
        removeMarker(marker);
        return;  // the other modules get no call in this pass
      }
      noteContextHolder(module, marker);
      remove_user_from_dict(context);  // left by a request: no user asks for this call
      if (plugInLogging) logNotice("[%d]     Processing idle for %@", processId(), module);
      try {
        arguments.giveTo(*handler, context, &lockFileFD);
      } catch (...) {
        logNotice("[%d] Exception during idle processing: %@ for module %@", processId(),
                  detail::describeCurrentException(), module);
      }
      setAndUnlockContext(context, module, &lockFileFD);
      removeMarker(marker);
    }
    if (plugInLogging) logNotice("[%d] Done with idle processing", processId());
  } catch (...) {
    logNotice("[%d] Exception during doIdle: %@", processId(), detail::describeCurrentException());
  }
}

void BundleManager::doIdle(std::string_view module) {
  const PlistValue marker = idleMarker(module);
  {
    // Past addMarker:, as ever; the lock is held all the same, since an append beside it would be a data race.
    const MutexLock lock(requestsLock);
    outstandingRequests.append(marker);
  }
  if (plugInLogging) logNotice("[%d] Starting idle processing", processId());
  const IdleArguments arguments(countOfSingleCalls++);
  PluginRequestHandler* handler = getPrincipalClass(module);
  if (plugInLogging) logNotice("[%d] starting request for module %@", processId(), module);
  int lockFileFD = -1;
  bool timedOut = false;
  const PlistValue context = getAndLockContext(module, &lockFileFD, &timedOut);
  if (!timedOut) {
    noteContextHolder(module, marker);
    remove_user_from_dict(context);
    try {
      if (handler != nullptr) arguments.giveTo(*handler, context, &lockFileFD);
    } catch (...) {
      logNotice("[%d] Exception in doIdle (%@): %@", processId(), module, detail::describeCurrentException());
    }
    setAndUnlockContext(context, module, &lockFileFD);
    if (plugInLogging) logNotice("[%d] finished request for module %@", processId(), module);
  }
  removeMarker(marker);
}

}  // namespace ostrel
