// A network of a test's own: a child process in new network and mount namespaces, where nothing touches the machine's.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace ostrel::testing {

/// What the body of a namespace test throws where this machine lacks what it needs: the test is skipped.
struct NotPossibleHere : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs ip(8) of iproute2 with these words ("address add 192.0.2.1/24 dev one"); throws when it fails.
inline void ip(const std::string& words) {
  const std::string command = "PATH=/usr/sbin:/sbin:$PATH ip " + words;
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: ip " + words);
}

/// Waits until the kernel says that the interface has its link, or has none: it takes its time to notice. Throws when
/// it does not come to that.
inline void awaitLink(const std::string& interface, bool up) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const auto isUp = [&interface] {
    std::string state;
    std::ifstream("/sys/class/net/" + interface + "/operstate") >> state;
    return state == "up";
  };
  while (isUp() != up) {
    if (std::chrono::steady_clock::now() >= end) throw std::runtime_error("the link of " + interface + " stays");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

/// Two Ethernet interfaces joined by a wire, both up, with link-layer addresses of the test's choice ("" for any).
inline void addWire(const std::string& one, const std::string& other, const std::string& address = "",
                    const std::string& otherAddress = "") {
  const auto addressed = [](const std::string& text) { return text.empty() ? "" : " address " + text; };
  try {
    ip("link add " + one + addressed(address) + " type veth peer name " + other + addressed(otherAddress));
  } catch (const std::runtime_error& failure) {
    throw NotPossibleHere(std::string("this kernel makes no veth pair: ") + failure.what());
  }
  for (const std::string& end : {one, other}) ip("link set " + end + " up");
  for (const std::string& end : {one, other}) awaitLink(end, true);
}

namespace detail {

constexpr int skipStatus = 77;
constexpr unsigned int mostSeconds = 240;  // for one body: sanitizer builds are slow

inline void writeOrThrow(const char* path, const std::string& text) {
  std::ofstream file(path);
  if (!(file << text << std::flush)) throw NotPossibleHere(std::string("cannot write ") + path);
}

[[noreturn]] inline void refused(const std::string& what) {
  throw NotPossibleHere("this machine refuses " + what + ": " + std::strerror(errno));
}

/// Root takes the namespaces as they are; others become root of a user namespace first.
inline void enterNamespaces() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) refused("a network namespace");
    writeOrThrow("/proc/self/setgroups", "deny");
    writeOrThrow("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    writeOrThrow("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
  // /sys/class/net shows the namespace in which it was mounted.
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) refused("private mounts");
  if (mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) refused("a mount of /sys");
  ip("link set lo up");
}

inline int runBody(const std::function<void()>& body, int reasons) {
  try {
    enterNamespaces();
    body();
  } catch (const NotPossibleHere& reason) {
    const std::string text = reason.what();
    if (write(reasons, text.data(), text.size()) > 0) return skipStatus;
  } catch (const std::exception& failure) {
    ADD_FAILURE() << failure.what();
  }
  return ::testing::Test::HasFailure() ? 1 : 0;
}

}  // namespace detail

/// Runs `body` in a child process with a network of its own, where "lo" is all there is, and a /sys that shows it; what
/// the body starts stays in there. Expectations of the body count for the test; the test is skipped, with the reason,
/// where the machine forbids this. Requires: the only statement of its test, and no other thread runs.
inline void inNetworkNamespace(const std::function<void()>& body) {
  int reasons[2];
  ASSERT_EQ(pipe2(reasons, O_CLOEXEC), 0);
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(reasons[0]);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    alarm(detail::mostSeconds);
    const int status = detail::runBody(body, reasons[1]);
    std::fflush(nullptr);
    _exit(status);
  }
  close(reasons[1]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  char reason[1024] = {};
  const ssize_t size = read(reasons[0], reason, sizeof reason - 1);
  close(reasons[0]);
  if (WIFEXITED(status) && WEXITSTATUS(status) == detail::skipStatus && size > 0) GTEST_SKIP() << reason;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the body of the test failed, wait status " << status;
}

}  // namespace ostrel::testing
