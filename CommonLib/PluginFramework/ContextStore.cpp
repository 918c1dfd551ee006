#include "PluginFramework/ContextStore.h"

#include <cerrno>
#include <chrono>
#include <optional>

#include "Platform/Clock.h"
#include "Platform/FileDescriptor.h"
#include "Platform/HostRoot.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/Internal/ContextFile.h"

namespace ostrel {
namespace {

constexpr std::chrono::milliseconds waitPerAttempt{1};
constexpr int attempts = 120'000;

enum class Locking { locked, failed, timedOut };

Locking lockContextFile(int descriptor, bool limited) {
  int attemptsLeft = attempts;
  while (!tryLockFile(descriptor)) {
    if (errno != EWOULDBLOCK && errno != EINTR) return Locking::failed;
    Clock::current().sleepFor(waitPerAttempt);
    if (limited && --attemptsLeft < 1) return Locking::timedOut;
  }
  return Locking::locked;
}

}  // namespace

PlistValue get_and_lock_context_with_timeout(std::string_view name, int* outDescriptor, bool* outTimedOut) {
  if (outTimedOut != nullptr) *outTimedOut = false;
  *outDescriptor = -1;
  name.remove_prefix(name.rfind('/') + 1);  // npos + 1 is 0
  const std::string path = hostPath("/private/var/ostreld/") + std::string(name) + ".lock";
  const int descriptor = detail::openContextFile(path, true);
  *outDescriptor = descriptor;

  switch (lockContextFile(descriptor, outTimedOut != nullptr)) {
    case Locking::timedOut:
      logNotice("[%d] error in get_and_lock_context: flock(%s) failed\n", processId(), path);
      *outTimedOut = true;
      return nullptr;
    case Locking::failed:
      // Goes on without the lock, and also without the file: a tool is still of use with an empty context.
      logNotice("[%d] error in get_and_lock_context: %d (errno=%d)\n", processId(), -1, errno);
      break;
    case Locking::locked:
      break;
  }
  detail::handOverContext();
  PlistValue context = detail::readContext(descriptor);
  context.set("contextDirty", false);
  return context;
}

PlistValue get_and_lock_context(std::string_view name, int* outDescriptor) {
  return get_and_lock_context_with_timeout(name, outDescriptor, nullptr);
}

void set_and_unlock_context(int* descriptor, const PlistValue* context) {
  if (descriptor == nullptr || *descriptor == -1) return;
  std::optional<std::string> failure;
  if (context == nullptr || context->isNull()) {
    failure = detail::eraseContext(*descriptor);
  } else if (detail::isDirty(*context)) {
    // Removed, where the host sets it to false: both are meant.
    PlistValue(*context).remove("contextDirty");
    failure = detail::writeContext(*descriptor, *context);
  }
  if (failure) logNotice("[%d] exception in set_and_unlock_context: %s\n", processId(), *failure);
  detail::handOverContext();
  unlockFile(*descriptor);
  FileDescriptor closing(*descriptor);
  *descriptor = -1;
}

}  // namespace ostrel
