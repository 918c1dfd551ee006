#include "Platform/TaskRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <future>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/FileDescriptor.h"
#include "Platform/Internal/ProcessHandle.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

/// The same file under a number that no standard stream has: the child's streams are set one after another, and none
/// may take the place of another's source.
FileDescriptor aboveStandardStreams(FileDescriptor file) {
  if (!file || file.get() > STDERR_FILENO) return file;
  return FileDescriptor(::fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// A file without a name that holds `text`, to be read from its start. A pipe would have to be fed while the program
/// runs, and would raise SIGPIPE where it reads no further.
FileDescriptor fileHolding(const std::string& text) {
  FileDescriptor file = aboveStandardStreams(FileDescriptor(::memfd_create("input", MFD_CLOEXEC)));
  if (file && (!writeFully(file.get(), text) || !seekTo(file.get(), 0))) file.reset();
  return file;
}

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;

  bool open() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return false;
    readEnd = aboveStandardStreams(FileDescriptor(ends[0]));
    writeEnd = aboveStandardStreams(FileDescriptor(ends[1]));
    // The reading end only: the program expects one that waits.
    return readEnd && writeEnd && ::fcntl(readEnd.get(), F_SETFL, O_NONBLOCK) == 0;
  }
};

/// What posix_spawn(3) is to do in the child. Keeps the first error.
class SpawnPlan {
 public:
  explicit SpawnPlan(short flags) {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    keep(posix_spawn_file_actions_init(&actions_));
    keep(posix_spawnattr_init(&attributes_));
    keep(posix_spawnattr_setsigmask(&attributes_, &none));
    keep(posix_spawnattr_setsigdefault(&attributes_, &all));
    const int always = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    keep(posix_spawnattr_setflags(&attributes_, static_cast<short>(flags | always)));
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void useFile(int stream, const FileDescriptor& file) {
    keep(posix_spawn_file_actions_adddup2(&actions_, file.get(), stream));
  }
  void useNothing(int stream) {
    const int flags = stream == STDIN_FILENO ? O_RDONLY : O_WRONLY;
    keep(posix_spawn_file_actions_addopen(&actions_, stream, "/dev/null", flags, 0));
  }
  /// Also those that other threads have open, or open meanwhile, without close-on-exec.
  void closeTheRest() { keep(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1)); }

  /// The child's id, or -1 with errno.
  pid_t spawn(const char* path, char* const* arguments, char* const* environment) {
    pid_t child = -1;
    if (error_ == 0) error_ = posix_spawn(&child, path, &actions_, &attributes_, arguments, environment);
    if (error_ == 0) return child;
    errno = error_;
    return -1;
  }

 private:
  void keep(int error) {
    if (error_ == 0) error_ = error;
  }
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int error_ = 0;
};

bool holdsNul(const std::string& text) { return text.find('\0') != std::string::npos; }

/// False, with errno, for texts that the program would get shorter than they are.
bool isStartable(const Task& task) {
  if (!detail::isUsablePath(task.path)) return false;
  const bool cut = std::ranges::any_of(task.arguments, holdsNul) ||
                   (task.environment && std::ranges::any_of(*task.environment, holdsNul));
  if (cut) errno = EINVAL;
  return !cut;
}

void addPointers(std::vector<char*>& pointers, const std::vector<std::string>& texts) {
  // posix_spawn takes what it does not change as changeable.
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
}

void setStream(SpawnPlan& plan, int stream, TaskStream choice, const FileDescriptor& captured) {
  if (choice == TaskStream::captured && captured)
    plan.useFile(stream, captured);
  else if (choice != TaskStream::inherited)
    plan.useNothing(stream);
}

/// The child's id, or -1 with errno. `captured` is where captured streams go; none: they are discarded.
pid_t spawn(const Task& task, const FileDescriptor& captured, short flags) {
  if (!isStartable(task)) return -1;
  FileDescriptor input;
  if (task.input && !(input = fileHolding(*task.input))) return -1;
  SpawnPlan plan(flags);
  if (input)
    plan.useFile(STDIN_FILENO, input);
  else
    plan.useNothing(STDIN_FILENO);
  setStream(plan, STDOUT_FILENO, task.output, captured);
  setStream(plan, STDERR_FILENO, task.errors, captured);
  plan.closeTheRest();

  std::vector<char*> arguments{const_cast<char*>(task.path.c_str())};
  addPointers(arguments, task.arguments);
  std::vector<char*> environment;
  if (task.environment) addPointers(environment, *task.environment);
  return plan.spawn(task.path.c_str(), arguments.data(), task.environment ? environment.data() : environ);
}

/// Collects what a program writes, up to a limit.
class Capture {
 public:
  Capture(FileDescriptor source, std::size_t limit) : source_(std::move(source)), limit_(limit) {}

  int descriptor() const { return source_.get(); }

  /// Reads once what is there; closes the source at its end.
  std::size_t readOnce(std::size_t most = SIZE_MAX) {
    std::array<char, 65536> buffer;
    const ssize_t count = readSome(source_.get(), buffer.data(), std::min(most, buffer.size()));
    if (count == 0 || (count < 0 && errno != EAGAIN)) source_.reset();
    if (count <= 0) return 0;
    keep({buffer.data(), static_cast<std::size_t>(count)});
    return static_cast<std::size_t>(count);
  }

  /// Reads what the pipe holds now. What others write to it later, the ended program's own children, is not waited for.
  void readRest() {
    int waiting = 0;
    if (!source_ || ::ioctl(source_.get(), FIONREAD, &waiting) != 0) return;
    for (auto left = static_cast<std::size_t>(waiting); left > 0;) {
      const std::size_t count = readOnce(left);
      if (count == 0) return;
      left -= count;
    }
  }

  void moveTo(TaskOutcome& outcome) {
    outcome.output = std::move(text_);
    outcome.outputCut = cut_;
  }

 private:
  void keep(std::string_view bytes) {
    const std::size_t kept = std::min(bytes.size(), limit_ - text_.size());
    cut_ = cut_ || kept < bytes.size();
    try {
      text_.append(bytes.substr(0, kept));
    } catch (const std::bad_alloc&) {  // the program must be waited for all the same
      limit_ = text_.size();
      cut_ = true;
    }
  }
  FileDescriptor source_;
  std::size_t limit_;
  std::string text_;
  bool cut_ = false;
};

/// The time that a program has, which ends once.
class TimeLimit {
 public:
  explicit TimeLimit(std::optional<std::chrono::milliseconds> limit) {
    if (limit) end_ = Clock::now() + *limit;
  }
  /// What is left for poll(2); -1 without limit and once it has been taken.
  int millisecondsLeft() const {
    if (end_ == never) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
  }
  bool takeEnd() {
    if (millisecondsLeft() != 0) return false;
    end_ = never;
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::time_point never = Clock::time_point::max();
  Clock::time_point end_ = never;
};

/// Reads until the program has ended and collects it. False with errno when its status cannot be had.
bool waitForEnd(pid_t child, Capture& capture, TimeLimit limit, siginfo_t& end, bool& timedOut) {
  constexpr int lookAgainMilliseconds = 20;  // only where a sandbox denies handles on processes
  const FileDescriptor handle = detail::openProcess(child);
  for (;;) {
    pollfd sources[] = {{handle.get(), POLLIN, 0}, {capture.descriptor(), POLLIN, 0}};
    detail::retried([&] { return ::poll(sources, 2, handle ? limit.millisecondsLeft() : lookAgainMilliseconds); });
    if (limit.takeEnd()) timedOut = ::kill(child, SIGKILL) == 0;  // not collected yet: the id is still its own
    if (sources[1].revents != 0) capture.readOnce();
    if (handle && sources[0].revents == 0) continue;
    if (detail::retried([&] { return waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG); }) != 0)
      return false;
    if (end.si_pid == child) return true;
  }
}

void collect(pid_t child) {
  detail::retried([&] { return waitpid(child, nullptr, 0); });
}

struct Started {
  std::optional<ProcessIdentity> identity;
  int error = 0;
};

Started startInSession(const Task& task) {
  const pid_t child = spawn(task, FileDescriptor(), POSIX_SPAWN_SETSID);
  if (child < 0) return {std::nullopt, errno};
  // Nobody has collected it yet: the id is still its own.
  const auto entry = ProcessTable::current().find(child);
  return {entry ? entry->identity() : ProcessIdentity{child, 0}, 0};
}

class HostTaskRunner final : public TaskRunner {
 public:
  std::optional<TaskOutcome> run(const Task& task) override {
    Pipe pipe;
    const bool captures = task.output == TaskStream::captured || task.errors == TaskStream::captured;
    if (captures && !pipe.open()) return std::nullopt;
    const pid_t child = spawn(task, pipe.writeEnd, 0);
    if (child < 0) return std::nullopt;
    pipe.writeEnd.reset();
    Capture capture(std::move(pipe.readEnd), task.outputLimit);
    siginfo_t end{};
    TaskOutcome outcome;
    if (!waitForEnd(child, capture, TimeLimit(task.timeLimit), end, outcome.timedOut)) return std::nullopt;
    capture.readRest();
    outcome.status = end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
    capture.moveTo(outcome);
    return outcome;
  }

  std::optional<ProcessIdentity> start(const Task& task) override {
    // The thread that will collect the child also starts it: where there is no thread, nothing is left uncollected.
    std::promise<Started> answer;
    auto started = answer.get_future();
    try {
      std::thread([&task, answer = std::move(answer)]() mutable { startAndCollect(task, answer); }).detach();
    } catch (const std::system_error& fault) {
      errno = fault.code().value();
      return std::nullopt;
    }
    const Started result = started.get();
    if (!result.identity) errno = result.error;
    return result.identity;
  }

 private:
  /// Uses `task` only until it answers.
  static void startAndCollect(const Task& task, std::promise<Started>& answer) {
    Started started;
    try {
      started = startInSession(task);
    } catch (const std::bad_alloc&) {
      started.error = ENOMEM;
    }
    answer.set_value(started);
    if (started.identity) collect(started.identity->id);
  }
};

}  // namespace

bool isProgram(const std::string& path) {
  const auto status = fileStatus(path);
  return status && status->isRegularFile() && ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

std::atomic<TaskRunner*>& TaskRunner::slot() {
  static HostTaskRunner host;
  static std::atomic<TaskRunner*> slot{&host};
  return slot;
}

}  // namespace ostrel
