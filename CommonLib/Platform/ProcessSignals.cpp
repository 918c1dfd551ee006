#include "Platform/ProcessSignals.h"

#include <signal.h>

#include <cerrno>

#include "Platform/Internal/ProcessHandle.h"

namespace ostrel {
namespace {

bool fail(int reason) {
  errno = reason;
  return false;
}

/// Whether the id still is that process's. Looked at while a handle on the process is held, so that the answer stays
/// true.
bool isStill(const ProcessIdentity& process) {
  if (process.started == 0) return true;
  const auto entry = ProcessTable::current().find(process.id);
  return entry && entry->started == process.started;
}

class HostProcessSignals final : public ProcessSignals {
 public:
  bool send(const ProcessIdentity& process, int signal) override {
    if (process.id < 1) return fail(EINVAL);
    const FileDescriptor handle = detail::openProcess(process.id);
    // A thread's id gives EINVAL or ENOENT, depending on the kernel.
    if (!handle && (errno == ESRCH || errno == EINVAL || errno == ENOENT)) return fail(ESRCH);
    if (!isStill(process)) return fail(ESRCH);
    if (handle) return detail::signalProcess(handle, signal);
    return kill(process.id, signal) == 0;  // no descriptor was to be had, or a sandbox denies these calls
  }
};

}  // namespace

std::atomic<ProcessSignals*>& ProcessSignals::slot() {
  static HostProcessSignals host;
  static std::atomic<ProcessSignals*> slot{&host};
  return slot;
}

}  // namespace ostrel
