#include "Platform/Internal/Directory/LdapSocket.h"

#include <poll.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Platform/NameResolver.h"
#include "Platform/Socket.h"

namespace ostrel::detail {
namespace {

LdapSocket* socketOf(Sockbuf_IO_Desc* layer) { return static_cast<LdapSocket*>(layer->sbiod_pvt); }

std::chrono::milliseconds until(LdapSocket::TimePoint deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

// False with the reason in errno.
bool connectUntil(int descriptor, const SocketAddress& address, LdapSocket::TimePoint deadline) {
  if (!setNonBlocking(descriptor, true)) return false;
  if (connectSocket(descriptor, address)) return true;
  if (errno != EINPROGRESS) return false;
  const auto ready = waitUntilReady(descriptor, until(deadline));
  if (!ready) return false;
  errno = ready->writable ? takeSocketError(descriptor) : ETIMEDOUT;
  return errno == 0;
}

}  // namespace

std::unique_ptr<LdapSocket> LdapSocket::connect(const std::string& host, std::uint16_t port, TimePoint deadline,
                                                std::string& fault) {
  const auto found = NameResolver::current().resolve(host, std::to_string(port), AddressFamily::any);
  if (found.addresses.empty()) fault = NameResolver::errorText(found);
  for (const SocketAddress& address : found.addresses) {
    FileDescriptor socket = openStreamSocket(address.family());
    if (socket && connectUntil(socket.get(), address, deadline)) {
      setNoDelay(socket.get());
      return std::unique_ptr<LdapSocket>(new LdapSocket(std::move(socket)));
    }
    fault = strerror(errno);  // NOLINT(concurrency-mt-unsafe): glibc's has a buffer for each thread
  }
  return nullptr;
}

void LdapSocket::allow(TimePoint deadline, std::size_t bytes) {
  deadline_ = deadline;
  bytesLeft_ = bytes;
}

bool LdapSocket::hasUnexpectedInput() const {
  if (aheadAt_ != aheadEnd_) return true;
  pollfd waiting{socket_.get(), POLLIN, 0};
  return poll(&waiting, 1, 0) != 0;
}

bool LdapSocket::waitFor(short events) {
  for (;;) {
    pollfd waiting{socket_.get(), events, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(until(deadline_).count()));
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      timedOut_ = true;
      errno = ETIMEDOUT;
    }
    return false;
  }
}

bool LdapSocket::refill() {
  for (;;) {
    const ssize_t size = receiveSome(socket_.get(), ahead_.data(), ahead_.size());
    if (size > 0) {
      aheadAt_ = 0;
      aheadEnd_ = static_cast<std::size_t>(size);
      return true;
    }
    if (size == 0) errno = 0;
    if (size == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return false;
    if (!waitFor(POLLIN)) return false;
  }
}

ber_slen_t LdapSocket::read(void* buffer, ber_len_t size) {
  if (stopped_) {
    errno = EPIPE;
    return -1;
  }
  if (aheadAt_ == aheadEnd_ && !refill()) return errno == 0 ? 0 : -1;
  const std::size_t taken = std::min<std::size_t>(size, aheadEnd_ - aheadAt_);
  if (taken > bytesLeft_) {
    errno = EMSGSIZE;
    return -1;
  }
  bytesLeft_ -= taken;
  memcpy(buffer, ahead_.data() + aheadAt_, taken);
  aheadAt_ += taken;
  return static_cast<ber_slen_t>(taken);
}

ber_slen_t LdapSocket::write(const void* bytes, ber_len_t size) {
  if (stopped_) {
    errno = EPIPE;
    return -1;
  }
  for (;;) {
    const ssize_t sent = sendSome(socket_.get(), bytes, size);
    if (sent >= 0) return sent;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (!waitFor(POLLOUT)) return -1;
  }
}

int LdapSocket::setUp(Sockbuf_IO_Desc* layer, void* socket) {
  layer->sbiod_pvt = socket;
  return 0;
}

int LdapSocket::remove(Sockbuf_IO_Desc* layer) {
  layer->sbiod_pvt = nullptr;
  return 0;
}

int LdapSocket::control(Sockbuf_IO_Desc* layer, int option, void*) {
  const LdapSocket* socket = socketOf(layer);
  return option == LBER_SB_OPT_DATA_READY && socket->aheadAt_ != socket->aheadEnd_ ? 1 : 0;
}

ber_slen_t LdapSocket::readLayer(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) {
  return socketOf(layer)->read(buffer, size);
}

ber_slen_t LdapSocket::writeLayer(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t size) {
  return socketOf(layer)->write(bytes, size);
}

Sockbuf_IO* LdapSocket::operations() {
  // The descriptor is closed by its owner.
  static Sockbuf_IO operations{&setUp, &remove, &control, &readLayer, &writeLayer, [](Sockbuf_IO_Desc*) { return 0; }};
  return &operations;
}

}  // namespace ostrel::detail
