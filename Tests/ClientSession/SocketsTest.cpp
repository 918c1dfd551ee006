#include "ClientSession/Sockets.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <numeric>
#include <string>
#include <thread>

#include "Platform/Socket.h"
#include "Platform/TlsClient.h"
#include "Support/Fakes.h"

namespace ostrel::testing {
namespace {

struct SocketPair {
  explicit SocketPair(bool nonBlocking) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    here.reset(ends[0]);
    there.reset(ends[1]);
    EXPECT_TRUE(setNonBlocking(here.get(), nonBlocking));
  }
  FileDescriptor here;
  FileDescriptor there;
};

using Read = std::int32_t (*)(int, void*, std::size_t*);
using Write = std::int32_t (*)(int, const void*, std::size_t*);

TEST(Sockets, ReadingFillsTheBufferUnlessTheStreamEnds) {
  for (const bool polls : {false, true}) {
    const Read read = polls ? _OstrelSocketRead : _OstrelSocketBlockingRead;
    SocketPair pair(polls);
    // In pieces, so that one system call does not do.
    std::thread writer([&] {
      for (const char* piece : {"ab", "cd", "ef", "g"}) {
        EXPECT_EQ(sendSome(pair.there.get(), piece, std::char_traits<char>::length(piece)),
                  static_cast<ssize_t>(std::char_traits<char>::length(piece)));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      pair.there.reset();
    });
    std::array<char, 6> buffer{};
    std::size_t count = buffer.size();
    EXPECT_EQ(read(pair.here.get(), buffer.data(), &count), ioCompleted);
    EXPECT_EQ(std::string(buffer.data(), count), "abcdef");
    count = buffer.size();
    EXPECT_EQ(read(pair.here.get(), buffer.data(), &count), ioClosedGracefully);
    EXPECT_EQ(std::string(buffer.data(), count), "g");
    count = buffer.size();
    EXPECT_EQ(read(pair.here.get(), buffer.data(), &count), ioClosedGracefully);
    EXPECT_EQ(count, 0U);
    writer.join();
    count = 1;
    EXPECT_EQ(read(-1, buffer.data(), &count), ioClosedGracefully);  // a read error looks like the end
  }
}

TEST(Sockets, WritingToAClosedPeerFailsAndNeverKills) {
  for (const bool polls : {false, true}) {
    const Write write = polls ? _OstrelSocketWrite : _OstrelSocketBlockingWrite;
    SocketPair pair(polls);
    std::size_t count = 3;
    EXPECT_EQ(write(pair.here.get(), "abc", &count), ioCompleted);
    EXPECT_EQ(count, 3U);
    pair.there.reset();
    EXPECT_EQ(write(pair.here.get(), "abc", &count), ioFailed);
    EXPECT_EQ(count, 0U);
  }
}

TEST(Sockets, BlockingWriteTellsThatItWouldBlock) {
  SocketPair pair(true);
  const std::string bytes(4U << 20U, 'x');
  std::size_t count = bytes.size();
  EXPECT_EQ(_OstrelSocketBlockingWrite(pair.here.get(), bytes.data(), &count), ioWouldBlock);
  EXPECT_GT(count, 0U);
  EXPECT_LT(count, bytes.size());
}

TEST(Sockets, PollingGivesUpAfterSixtyThousandWaits) {
  FakeClock clock;
  RecordingLog log;
  const ScopedOverride<Clock> time(clock);
  const ScopedOverride<SystemLog> lines(log);
  SocketPair pair(true);
  const std::string prefix = "[" + std::to_string(processId()) + "] Ostrel _OstrelSocket";
  const std::string fd = "(fd=" + std::to_string(pair.here.get()) + ") timed out (count=-1,remaining=";

  std::array<char, 10> buffer{};
  std::size_t count = buffer.size();
  ASSERT_EQ(sendSome(pair.there.get(), "abc", 3), 3);
  EXPECT_EQ(_OstrelSocketRead(pair.here.get(), buffer.data(), &count), ioFailed);
  EXPECT_EQ(count, 3U);
  EXPECT_EQ(clock.sleeps(), 60000);
  EXPECT_EQ(clock.monotonic(), std::chrono::seconds(60));
  EXPECT_TRUE(log.holds(prefix + "Read" + fd + "7)\n"));

  const std::string bytes(4U << 20U, 'x');
  count = bytes.size();
  EXPECT_EQ(_OstrelSocketWrite(pair.here.get(), bytes.data(), &count), ioFailed);
  EXPECT_LT(count, bytes.size());
  EXPECT_EQ(clock.sleeps(), 120000);
  EXPECT_TRUE(log.holds(prefix + "Write" + fd + std::to_string(bytes.size() - count) + ")\n"));
}

/// Sends one byte at every hundredth wait, as a peer would that is slow but not silent.
class DribblingClock final : public Clock {
 public:
  explicit DribblingClock(int descriptor) : descriptor_(descriptor) {}
  PlistDate now() override { return {}; }
  std::chrono::nanoseconds monotonic() override { return {}; }
  void sleepFor(std::chrono::nanoseconds) override {
    if (++waits % 100 != 0) return;
    EXPECT_EQ(sendSome(descriptor_, "x", 1), 1);
  }
  int waits = 0;

 private:
  const int descriptor_;
};

TEST(Sockets, BytesThatArriveDoNotRenewTheBudget) {
  RecordingLog log;
  const ScopedOverride<SystemLog> lines(log);
  SocketPair pair(true);
  DribblingClock clock(pair.there.get());
  const ScopedOverride<Clock> time(clock);
  std::array<char, 8192> buffer{};
  std::size_t count = buffer.size();
  EXPECT_EQ(_OstrelSocketRead(pair.here.get(), buffer.data(), &count), ioFailed);
  EXPECT_EQ(clock.waits, 60000);
  EXPECT_EQ(count, 600U);  // also the byte of the last wait
}

}  // namespace
}  // namespace ostrel::testing
