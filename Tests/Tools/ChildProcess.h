// A program that a test starts, with its output in files, ended by its id at the latest when the test ends.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Support/TemporaryFolder.h"

namespace ostrel::testing {

/// Polls until the condition holds; whether it did in time. Sanitizer builds are slow: the limit is generous.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(40)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

class ChildProcess {
 public:
  /// `output` and `errors` are files to append to. `environment` comes before the test's own: the first of
  /// two of one name counts.
  ChildProcess(const std::vector<std::string>& command, const std::string& output, const std::string& errors,
               const std::vector<std::string>& environment = {}) {
    std::vector<char*> arguments;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    std::vector<char*> variables;
    for (const std::string& variable : environment) variables.push_back(const_cast<char*>(variable.c_str()));
    for (char** variable = environ; *variable != nullptr; ++variable) variables.push_back(*variable);
    variables.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int error = posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), variables.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + command[0]);
  }
  ~ChildProcess() {
    if (hasEnded()) return;
    send(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void send(int signal) const { kill(pid_, signal); }
  bool hasEnded() {
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    return status_.has_value();
  }
  /// The exit status, or 128 and the number of the signal that ended it; -1 when it still runs after the limit.
  int wait() {
    if (!eventually([this] { return hasEnded(); }, std::chrono::seconds(60))) return -1;
    return WIFEXITED(*status_) ? WEXITSTATUS(*status_) : 128 + WTERMSIG(*status_);
  }

 private:
  pid_t pid_ = 0;
  std::optional<int> status_;
};

struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};

/// Runs a program to its end.
inline Outcome runProgram(const std::vector<std::string>& command, const std::vector<std::string>& environment = {}) {
  const TemporaryFolder folder;
  ChildProcess child(command, folder / "output", folder / "errors", environment);
  Outcome outcome;
  outcome.status = child.wait();
  outcome.output = readFile(folder / "output");
  outcome.errors = readFile(folder / "errors");
  return outcome;
}

}  // namespace ostrel::testing
