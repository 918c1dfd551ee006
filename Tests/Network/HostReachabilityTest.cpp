#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Network/InterfaceInfo.h"
#include "Support/FakeNetwork.h"
#include "Support/Loopback.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;
using ostrel::testing::FakeResolver;
using ostrel::testing::LoopbackListener;

// A listener whose queue is full: the kernel drops what comes, as a filter would, until a connection is accepted.
class SilentListener {
 public:
  SilentListener() : listener_(0) {
    for (int i = 0; i < 8; ++i) {
      FileDescriptor client = openStreamSocket(AF_INET);
      setNonBlocking(client.get(), true);
      connectSocket(client.get(), listener_.address());
      clients_.push_back(std::move(client));
    }
    std::this_thread::sleep_for(50ms);
  }
  int port() const { return listener_.port(); }
  // Makes room until `done`.
  void acceptUntil(const std::atomic<bool>& done) {
    setNonBlocking(listener_.descriptor(), true);
    while (!done) {
      accepted_.push_back(listener_.accept());
      std::this_thread::sleep_for(5ms);
    }
  }

 private:
  LoopbackListener listener_;
  std::vector<FileDescriptor> clients_;
  std::vector<FileDescriptor> accepted_;
};

std::chrono::nanoseconds timed(const auto& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::steady_clock::now() - start;
}

TEST(IsHostReachable, AnOpenPortIsAndAClosedOneIsNot) {
  LoopbackListener listener;
  const int port = listener.port();
  EXPECT_TRUE(is_host_reachable("127.0.0.1", port, 10'000));
  EXPECT_TRUE(is_host_reachable("127.0.0.1", port, 0));
  EXPECT_TRUE(is_host_reachable("localhost", port, 10'000));
  listener.close();
  // Refused: readable and writable at once, and readable decides. It must not take the time-out.
  EXPECT_LT(timed([&] { EXPECT_FALSE(is_host_reachable("127.0.0.1", port, 60'000)); }), 30s);
  EXPECT_FALSE(is_host_reachable("127.0.0.1", port, 0));
}

TEST(IsHostReachable, OddArguments) {
  const LoopbackListener listener;
  EXPECT_FALSE(is_host_reachable(nullptr, listener.port(), 1000));
  EXPECT_FALSE(is_host_reachable("", listener.port(), 1000));
  EXPECT_FALSE(is_host_reachable("127.0.0.1", -1, 1000));
  EXPECT_FALSE(is_host_reachable("127.0.0.1", listener.port() + 65536, 1000)) << "a port is not wrapped";
  EXPECT_TRUE(is_host_reachable("127.0.0.1", listener.port(), INT64_MAX));
}

TEST(IsHostReachable, TheFirstIPv4ResultIsTried) {
  const LoopbackListener listener;
  FakeResolver resolver;
  resolver.hosts["server"] = {"::1", "127.0.0.1", "127.0.0.2"};
  resolver.hosts["six"] = {"::1"};
  const ScopedOverride<NameResolver> scope(resolver);
  EXPECT_TRUE(is_host_reachable("server", listener.port(), 10'000));
  EXPECT_FALSE(is_host_reachable("six", listener.port(), 10'000));
  EXPECT_FALSE(is_host_reachable("unknown", listener.port(), 10'000));
  const int lookups = resolver.lookups;
  EXPECT_TRUE(is_host_reachable("127.0.0.1", listener.port(), 10'000));
  EXPECT_EQ(resolver.lookups, lookups);
}

TEST(IsHostReachable, TheTimeOutIsKept) {
  const SilentListener silent;
  bool reachable = true;
  const auto took = timed([&] { reachable = is_host_reachable("127.0.0.1", silent.port(), 150); });
  EXPECT_FALSE(reachable);
  EXPECT_GE(took, 150ms);
  EXPECT_LT(took, 900ms);
  EXPECT_LT(timed([&] { EXPECT_FALSE(is_host_reachable("127.0.0.1", silent.port(), -1)); }), 100ms);
}

// Without a limit the wait outlasts the kernel's first repetition, a second later, by which time there is room.
TEST(IsHostReachable, ATimeOutOfZeroWaits) {
  SilentListener silent;
  std::atomic<bool> done{false};
  std::thread acceptor([&] {
    std::this_thread::sleep_for(300ms);
    silent.acceptUntil(done);
  });
  bool reachable = false;
  const auto took = timed([&] { reachable = is_host_reachable("127.0.0.1", silent.port(), 0); });
  EXPECT_TRUE(reachable);
  EXPECT_GE(took, 300ms);
  done = true;
  acceptor.join();
}

TEST(IsHostReachable, WorksWithDescriptorsBeyondTheReachOfSelect) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit former = limit;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  {
    const LoopbackListener listener;
    std::vector<FileDescriptor> held;
    while (held.empty() || held.back().get() < 1030) {
      held.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 3));
      ASSERT_TRUE(held.back()) << "the limit of open files is too low";
    }
    EXPECT_TRUE(is_host_reachable("127.0.0.1", listener.port(), 10'000));
  }
  setrlimit(RLIMIT_NOFILE, &former);
}

}  // namespace
}  // namespace ostrel
