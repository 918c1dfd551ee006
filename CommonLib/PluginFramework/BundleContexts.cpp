// The host's side of the context store: the same files as the plain functions, with a cache and a fatal time-out.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

#include "Containers/Utf8.h"
#include "Platform/Clock.h"
#include "Platform/FileDescriptor.h"
#include "Platform/HostRoot.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"
#include "PluginFramework/Envelope.h"
#include "PluginFramework/Internal/ContextFile.h"
#include "PluginFramework/Internal/LimitedWaits.h"

namespace ostrel {
namespace {

constexpr std::chrono::milliseconds waitPerAttempt{100};
constexpr std::chrono::seconds longWait{10};     // worth a warning
constexpr std::size_t longestCommandShown = 96;  // bytes
constexpr std::array<std::string_view, 5> longRunningModules{"ostrel_accounts", "ostrel_mail", "ostrel_print",
                                                             "ostrel_swupdate", "ostrel_web"};

int attemptsFor(std::string_view module) {
  return std::ranges::find(longRunningModules, module) != longRunningModules.end() ? 9'000 : 1'200;
}

/// The doubled slash is meant: it is how the host has always spelled the path.
std::string contextPath(std::string_view module) {
  std::string path = hostPath("/private/var/ostreld/");
  path.reserve(path.size() + module.size() + 6);
  return path.append("/").append(module).append(".lock");
}

/// The wait for one context's lock, with its budget of attempts.
class LockWait {
 public:
  LockWait(detail::LimitedWaits& waits, int attempts) : waits_(waits), attemptsLeft_(attempts) {}

  /// Blocks until the next attempt is due; false when there is none left.
  bool pause() {
    if (!wait_) wait_ = std::make_unique<detail::LimitedWait>(waits_, attemptsLeft_ * waitPerAttempt);
    Clock::current().sleepFor(waitPerAttempt);
    return --attemptsLeft_ >= 1;
  }
  /// True once, when `longWait` has passed.
  bool becameLong() {
    if (isLong_ || wait_->duration() < longWait) return false;
    isLong_ = true;
    return true;
  }

 private:
  detail::LimitedWaits& waits_;
  int attemptsLeft_;
  bool isLong_ = false;
  std::unique_ptr<detail::LimitedWait> wait_;  // from the first attempt that failed
};

std::int64_t wholeSeconds(const FileStatus& status) {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::nanoseconds(status.modifiedNanoseconds)).count();
}

}  // namespace

PlistValue BundleManager::getAndLockContext(std::string_view module, int* outFileDescriptor, bool* timedout) {
  *timedout = false;
  if (!lockContextFile(module, outFileDescriptor)) {
    *timedout = true;
    return nullptr;
  }
  detail::handOverContext();

  const auto status = descriptorStatus(*outFileDescriptor);
  if (!status) throw ContextError("getAndLockContext: error getting file mod date");
  const std::int64_t fileDate = wholeSeconds(*status);
  PlistValue context = cachedContext(module, fileDate);
  if (context.isNull()) {
    // Without contextLock: the file's lock guards this module's entry, and others must not wait for its disk.
    context = detail::readContext(*outFileDescriptor);
    const MutexLock lock(contextLock);
    contexts.insert_or_assign(std::string(module), CacheEntry{context, fileDate});
  }
  context.set("contextDirty", false);
  return context;
}

PlistValue BundleManager::cachedContext(std::string_view module, std::int64_t fileDate) {
  const MutexLock lock(contextLock);
  const auto entry = contexts.find(module);
  return entry != contexts.end() && fileDate <= entry->second.contextModDate ? entry->second.context : PlistValue();
}

bool BundleManager::lockContextFile(std::string_view module, int* outFileDescriptor) {
  const std::string path = contextPath(module);
  LockWait wait(*waits_, attemptsFor(module));  // for all openings together
  for (;;) {
    errno = ENOENT;
    const int descriptor = module.find('/') == std::string_view::npos ? detail::openContextFile(path, false) : -1;
    *outFileDescriptor = descriptor;
    if (descriptor == -1) {
      logNotice("[%d] error in getAndLockContext: open returned %d (errno=%d)  file was %s", processId(), descriptor,
                errno, path);
      return false;
    }
    int failure = 0;
    for (;;) {
      if (tryLockFile(descriptor)) return true;
      failure = errno;
      if (failure != EWOULDBLOCK && failure != EINTR) break;
      const bool mayTryAgain = wait.pause();
      if (wait.becameLong()) warnOfLongWait(module);
      if (!mayTryAgain) {
        reportDeadlockAndQuit(module);
        FileDescriptor closing(*outFileDescriptor);
        *outFileDescriptor = -1;
        return false;
      }
    }
    if (plugInLogging) logNotice("[%d] outstanding requests are: %s", processId(), describeOutstandingRequests());
    logNotice("[%d] error in getAndLockContext: flock returned %d (errno=%d) fd = %d file was %s", processId(), -1,
              failure, descriptor, path);
    // Opened again; the failed descriptor stays open, which is meant: whoever looks at the process finds it.
  }
}

void BundleManager::reportDeadlockAndQuit(std::string_view module) {
  const PlistValue requests = CopyOutstandingRequests();
  {
    const MutexLock lock(mtLock);
    const MutexLock markers(requestsLock);  // they are redacted, and others read them
    LogDeadlockToMessageTracer(requests, module);
  }
  logNotice("[%d] error in getAndLockContext: flock(%s) FATAL time out", processId(), module);
  logNotice("[%d] process will force-quit to avoid deadlock", processId());
  if (plugInLogging) logNotice("[%d] outstanding requests are: %s", processId(), describeOutstandingRequests());
  forceQuitNow_PleaseLookAtHungThreadAndNotThisThread();
}

std::chrono::nanoseconds BundleManager::longestOverrun() const { return waits_->longestOverrun(); }

void BundleManager::warnOfLongWait(std::string_view module) const {
  logAt(LogLevel::warning, "[%d] %s has waited %d seconds for its context, which %s", processId(), module,
        longWait.count(), contextHolder(module));
}

/// Without arguments, and bounded: the command is the caller's text.
std::string BundleManager::contextHolder(std::string_view module) const {
  const MutexLock lock(requestsLock);
  const auto holder = contextHolders_.find(module);
  if (holder == contextHolders_.end() || holder->second.isNull()) return "no request of this process holds";
  const PlistValue& marker = holder->second;
  const std::string command = marker.get("Command").stringValue().substr(0, longestCommandShown);
  const double seconds = Clock::current().now().secondsSince1970 - marker.get("Timestamp").dateValue().secondsSince1970;
  return format("%s %s had last, begun %.0f seconds ago", module,
                std::string_view(command).substr(0, validUtf8Prefix(command)), std::max(seconds, 0.0));
}

void BundleManager::setAndUnlockContext(const PlistValue& context, std::string_view module, int* inoutFileDescriptor) {
  if (*inoutFileDescriptor == -1) return;
  if (detail::isDirty(context)) {
    PlistValue(context).set("contextDirty", false);
    remove_user_from_dict(context);
    if (const auto failure = detail::writeContext(*inoutFileDescriptor, context))
      logNotice("[%d] error in setAndUnlockContext: context of %s not written: %s", processId(), module, *failure);
    const auto status = descriptorStatus(*inoutFileDescriptor);
    const MutexLock lock(contextLock);
    if (status) contexts.insert_or_assign(std::string(module), CacheEntry{context, wholeSeconds(*status)});
  }
  detail::handOverContext();
  unlockFile(*inoutFileDescriptor);
  FileDescriptor closing(*inoutFileDescriptor);
  *inoutFileDescriptor = -1;
}

void BundleManager::updateContextCache(std::string_view module) {
  int descriptor = -1;
  bool timedOut = false;
  const PlistValue context = getAndLockContext(module, &descriptor, &timedOut);
  if (!timedOut) setAndUnlockContext(context, module, &descriptor);
}

}  // namespace ostrel
