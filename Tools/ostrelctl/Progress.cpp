#include "ostrelctl/Progress.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <system_error>

#include "Containers/Format.h"
#include "Platform/FileDescriptor.h"

namespace ostrel {
namespace {

constexpr char clearLine[] = "\r\x1B[K";
std::atomic<bool> isShown = false;

std::string printable(const std::string& text) {
  std::string shown;
  for (const char c : text) shown += c >= ' ' && c <= '~' ? c : '?';
  return shown;
}

}  // namespace

Progress::Progress(const std::string& module) {
  if (isatty(STDERR_FILENO) == 0) return;
  // The time-out's signal is for the thread that waits for the reply.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this, shown = printable(module)] { show(shown); });
  } catch (const std::system_error&) {  // then nothing is shown
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Progress::~Progress() {
  {
    const MutexLock lock(mutex_);
    isDone_ = true;
    changed_.notifyAll();
  }
  if (thread_.joinable()) thread_.join();
  clearFromSignal();
}

void Progress::clearFromSignal() noexcept {
  if (!isShown.exchange(false)) return;
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, clearLine, sizeof clearLine - 1);
}

void Progress::show(const std::string& module) {
  const auto begun = std::chrono::steady_clock::now();
  auto next = begun + std::chrono::seconds(1);
  const MutexLock lock(mutex_);
  while (!isDone_) {
    changed_.waitUntil(mutex_, next);
    const auto now = std::chrono::steady_clock::now();
    if (isDone_ || now < next) continue;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - begun).count();
    isShown = true;
    writeFully(STDERR_FILENO, format("%swaiting for %s, %d s", clearLine, module, seconds));
    next += std::chrono::seconds(1);
  }
}

}  // namespace ostrel
