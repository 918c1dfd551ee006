#include "Platform/Socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

// The deadline of a time-out; none for one that is too long to be told from waiting without limit.
std::optional<SteadyTime> deadlineAfter(std::optional<std::chrono::milliseconds> timeout) {
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365 * 100);
  if (!timeout || *timeout > longest) return std::nullopt;
  return std::chrono::steady_clock::now() + std::max(*timeout, std::chrono::milliseconds(0));
}

int pollTime(std::optional<SteadyTime> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

}  // namespace

FileDescriptor openStreamSocket(int family) {
  return FileDescriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
}

bool connectSocket(int descriptor, const SocketAddress& address) {
  if (::connect(descriptor, address.get(), address.length()) == 0) return true;
  if (errno != EINTR) return false;
  // An interrupted connect goes on by itself; asking again would fail with EALREADY.
  if (!waitUntilReady(descriptor, std::nullopt)) return false;
  errno = takeSocketError(descriptor);
  return errno == 0;
}

bool setNonBlocking(int descriptor, bool on) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (flags < 0) return false;
  return ::fcntl(descriptor, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) == 0;
}

bool setNoDelay(int descriptor) {
  const int on = 1;
  return ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
}

int takeSocketError(int descriptor) {
  int error = 0;
  socklen_t size = sizeof error;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

ssize_t sendSome(int descriptor, const void* bytes, std::size_t size) {
  return detail::retried([&] { return ::send(descriptor, bytes, size, MSG_NOSIGNAL); });
}

ssize_t receiveSome(int descriptor, void* buffer, std::size_t capacity) {
  return detail::retried([&] { return ::recv(descriptor, buffer, capacity, 0); });
}

std::optional<Readiness> waitUntilReady(int descriptor, std::optional<std::chrono::milliseconds> timeout) {
  if (descriptor < 0) {  // poll(2) would pass it over
    errno = EBADF;
    return std::nullopt;
  }
  const auto deadline = deadlineAfter(timeout);
  for (;;) {
    pollfd watched{descriptor, POLLIN | POLLOUT, 0};
    const int count = ::poll(&watched, 1, pollTime(deadline));
    if (count < 0 && errno != EINTR) return std::nullopt;
    if (count > 0) {
      if ((watched.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return std::nullopt;
      }
      // How select(2) maps poll's events (the kernel's POLLIN_SET and POLLOUT_SET).
      return Readiness{(watched.revents & (POLLIN | POLLHUP | POLLERR)) != 0,
                       (watched.revents & (POLLOUT | POLLERR)) != 0};
    }
    if (count == 0 && deadline && std::chrono::steady_clock::now() >= *deadline) return Readiness{};
  }
}

}  // namespace ostrel
