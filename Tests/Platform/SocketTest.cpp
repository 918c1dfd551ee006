#include "Platform/Socket.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "Support/Loopback.h"

namespace ostrel {
namespace {

using namespace std::chrono_literals;
using ostrel::testing::LoopbackListener;

struct Pair {
  Pair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    here = FileDescriptor(ends[0]);
    there = FileDescriptor(ends[1]);
  }
  FileDescriptor here;
  FileDescriptor there;
};

TEST(Socket, SendingToAClosedConnectionIsAnErrorAndNoSignal) {
  Pair pair;
  pair.there.reset();
  EXPECT_EQ(sendSome(pair.here.get(), "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  char byte = 0;
  EXPECT_EQ(receiveSome(pair.here.get(), &byte, 1), 0);
}

TEST(Socket, TellsReadinessAsSelectDoes) {
  Pair pair;
  const auto readiness = [&](int descriptor) {
    const auto ready = waitUntilReady(descriptor, 0ms);
    return ready ? (ready->readable ? 2 : 0) + (ready->writable ? 1 : 0) : -1;
  };
  EXPECT_EQ(readiness(pair.here.get()), 1);
  ASSERT_EQ(sendSome(pair.there.get(), "x", 1), 1);
  EXPECT_EQ(readiness(pair.here.get()), 3);
  EXPECT_EQ(readiness(-1), -1);

  // A descriptor that no fd_set has room for.
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const FileDescriptor high(fcntl(pair.here.get(), F_DUPFD_CLOEXEC, 1500));
  ASSERT_TRUE(high) << "the limit of open files is too low";
  EXPECT_EQ(readiness(high.get()), 3);
}

TEST(Socket, AWaitLastsItsTimeAlsoWhenSignalsArrive) {
  Pair pair;
  setNonBlocking(pair.here.get(), true);
  const char block[4096] = {};
  while (sendSome(pair.here.get(), block, sizeof block) > 0) continue;

  struct sigaction action {};
  struct sigaction former {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &former), 0);
  std::thread disturber([waiter = pthread_self()] {
    for (int i = 0; i < 10; ++i) {
      std::this_thread::sleep_for(10ms);
      pthread_kill(waiter, SIGUSR1);
    }
  });
  const auto start = std::chrono::steady_clock::now();
  const auto ready = waitUntilReady(pair.here.get(), 150ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  disturber.join();
  sigaction(SIGUSR1, &former, nullptr);
  ASSERT_TRUE(ready);
  EXPECT_FALSE(ready->readable || ready->writable);
}

TEST(Socket, ConnectsAndReportsRefusal) {
  LoopbackListener listener;
  const FileDescriptor client = openStreamSocket(AF_INET);
  EXPECT_TRUE(connectSocket(client.get(), listener.address()));
  EXPECT_TRUE(setNoDelay(client.get()));
  EXPECT_EQ(takeSocketError(client.get()), 0);

  const SocketAddress closed = listener.address();
  listener.close();
  const FileDescriptor refused = openStreamSocket(AF_INET);
  EXPECT_FALSE(connectSocket(refused.get(), closed));
  EXPECT_EQ(errno, ECONNREFUSED);

  const FileDescriptor pending = openStreamSocket(AF_INET);
  ASSERT_TRUE(setNonBlocking(pending.get(), true));
  if (!connectSocket(pending.get(), closed) && errno == EINPROGRESS) {
    EXPECT_TRUE(waitUntilReady(pending.get(), 10s)->readable);
    EXPECT_EQ(takeSocketError(pending.get()), ECONNREFUSED);
    EXPECT_EQ(takeSocketError(pending.get()), 0) << "fetching clears it";
  }
}

}  // namespace
}  // namespace ostrel
