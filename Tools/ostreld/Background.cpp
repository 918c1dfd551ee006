#include "ostreld/Background.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace ostrel {
namespace {

[[noreturn]] void failToStart(const char* step) {
  std::perror(step);
  std::exit(1);
}

[[noreturn]] void waitForChild(const FileDescriptor& news, pid_t child) {
  char byte = 0;
  if (readSome(news.get(), &byte, 1) == 1) _exit(0);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  _exit(WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1);
}

}  // namespace

void openMissingStandardStreams() {
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The lowest free number is the one that is missing.
    if (fcntl(standard, F_GETFD) < 0 && open("/dev/null", O_RDWR) != standard) failToStart("ostreld: /dev/null");
  }
}

Background Background::enter() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) failToStart("ostreld: pipe");
  FileDescriptor news(ends[0]);
  FileDescriptor starter(ends[1]);
  const pid_t child = fork();
  if (child < 0) failToStart("ostreld: fork");
  if (child > 0) {
    starter.reset();
    waitForChild(news, child);
  }
  setsid();
  if (chdir("/") != 0) failToStart("ostreld: chdir");
  return Background(std::move(starter));
}

void Background::ready() {
  const FileDescriptor nothing = openFile("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (nothing) dup2(nothing.get(), standard);
  }
  writeFully(starter_.get(), "1");
  starter_.reset();
}

}  // namespace ostrel
