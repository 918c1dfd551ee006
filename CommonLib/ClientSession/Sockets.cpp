#include "ClientSession/Sockets.h"

#include <cerrno>
#include <chrono>

#include "Platform/Clock.h"
#include "Platform/Socket.h"
#include "Platform/SystemLog.h"
#include "Platform/TlsClient.h"

namespace ostrel {
namespace {

bool mustTryAgain() { return errno == EAGAIN || errno == EWOULDBLOCK; }

/// The waits that one polling call may spend. Bytes that arrive do not renew it.
class PollingBudget {
 public:
  /// Waits 1 ms; false at once when nothing is left. Keeps errno.
  bool wait() {
    if (waits_ == 60000) return false;
    ++waits_;
    const int reason = errno;
    Clock::current().sleepFor(std::chrono::milliseconds(1));
    errno = reason;
    return true;
  }

 private:
  int waits_ = 0;
};

}  // namespace
}  // namespace ostrel

using namespace ostrel;

std::int32_t _OstrelSocketBlockingWrite(int connection, const void* data, std::size_t* dataLength) {
  const auto* bytes = static_cast<const char*>(data);
  const std::size_t wanted = *dataLength;
  for (*dataLength = 0; *dataLength < wanted;) {
    const ssize_t count = sendSome(connection, bytes + *dataLength, wanted - *dataLength);
    if (count < 1) return count < 0 && mustTryAgain() ? ioWouldBlock : ioFailed;
    *dataLength += static_cast<std::size_t>(count);
  }
  return ioCompleted;
}

std::int32_t _OstrelSocketWrite(int connection, const void* data, std::size_t* dataLength) {
  const auto* bytes = static_cast<const char*>(data);
  const std::size_t wanted = *dataLength;
  PollingBudget budget;
  for (*dataLength = 0; *dataLength < wanted;) {
    const ssize_t count = sendSome(connection, bytes + *dataLength, wanted - *dataLength);
    if (count > 0) {
      *dataLength += static_cast<std::size_t>(count);
      continue;
    }
    if (count == 0 || !mustTryAgain()) return ioFailed;
    if (budget.wait()) continue;
    const int reason = errno;
    logNotice("[%d] Ostrel _OstrelSocketWrite(fd=%d) timed out (count=%ld,remaining=%ld)\n", processId(), connection,
              count, wanted - *dataLength);
    errno = reason;
    return ioFailed;
  }
  return ioCompleted;
}

std::int32_t _OstrelSocketBlockingRead(int connection, void* data, std::size_t* dataLength) {
  auto* bytes = static_cast<char*>(data);
  const std::size_t wanted = *dataLength;
  for (*dataLength = 0; *dataLength < wanted;) {
    const ssize_t count = receiveSome(connection, bytes + *dataLength, wanted - *dataLength);
    if (count < 1) return ioClosedGracefully;
    *dataLength += static_cast<std::size_t>(count);
  }
  return ioCompleted;
}

std::int32_t _OstrelSocketRead(int connection, void* data, std::size_t* dataLength) {
  auto* bytes = static_cast<char*>(data);
  const std::size_t wanted = *dataLength;
  PollingBudget budget;
  for (*dataLength = 0; *dataLength < wanted;) {
    const ssize_t count = receiveSome(connection, bytes + *dataLength, wanted - *dataLength);
    if (count > 0) {
      *dataLength += static_cast<std::size_t>(count);
      continue;
    }
    if (count == 0 || !mustTryAgain()) return ioClosedGracefully;
    if (budget.wait()) continue;
    const int reason = errno;
    logNotice("[%d] Ostrel _OstrelSocketRead(fd=%d) timed out (count=%ld,remaining=%ld)\n", processId(), connection,
              count, wanted - *dataLength);
    errno = reason;
    return ioFailed;
  }
  return ioCompleted;
}
