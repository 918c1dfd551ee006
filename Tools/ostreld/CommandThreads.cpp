#include "ostreld/CommandThreads.h"

#include <system_error>
#include <thread>

namespace ostrel {

void CommandThreads::start(const std::function<void()>& command) {
  {
    const MutexLock lock(mutex_);
    ++running_;
  }
  const auto work = [this, command] {
    command();
    end();
  };
  try {
    std::thread(work).detach();
  } catch (const std::system_error&) {
    work();
  }
}

void CommandThreads::end() {
  const MutexLock lock(mutex_);
  --running_;
  ended_.notifyAll();  // under the lock: the object may be gone right after
}

void CommandThreads::waitUntilNone() {
  const MutexLock lock(mutex_);
  while (running_ != 0) ended_.wait(mutex_);
}

}  // namespace ostrel
