#include "Platform/NetworkEvents.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/Internal/RouteMessages.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

constexpr std::uint32_t groups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

FileDescriptor openRouteSocket() {
  FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (socket && ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)  // NOLINT
    socket.reset();
  return socket;
}

class HostEventSource final : public NetworkEventSource {
 public:
  HostEventSource(FileDescriptor socket, FileDescriptor endNotice)
      : socket_(std::move(socket)), endNotice_(std::move(endNotice)), datagram_(std::size_t{64} << 10U) {}

  Event wait() override {
    for (;;) {
      pollfd ready[] = {{endNotice_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}};
      if (detail::retried([&] { return ::poll(ready, 2, -1); }) < 0) return Event::failed;
      if (ready[0].revents != 0) return Event::ended;
      if (ready[1].revents == 0) continue;
      switch (read()) {
        case News::none:
          break;
        case News::some:
          return Event::changed;
        case News::unreadable:
          return Event::failed;
      }
    }
  }

  void end() override {
    const std::uint64_t one = 1;
    detail::retried([&] { return ::write(endNotice_.get(), &one, sizeof one); });
  }

 private:
  enum class News { none, some, unreadable };

  News read() {
    sockaddr_nl from{};
    socklen_t length = sizeof from;
    const ssize_t size = detail::retried([&] {
      return ::recvfrom(socket_.get(), datagram_.data(), datagram_.size(), MSG_TRUNC,
                        reinterpret_cast<sockaddr*>(&from), &length);  // NOLINT
    });
    if (size < 0) {
      if (errno == ENOBUFS) return News::some;  // an overrun: what was lost is looked up
      return errno == EAGAIN ? News::none : News::unreadable;
    }
    if (from.nl_pid != 0) return News::none;  // another process's; the kernel's own id is 0
    const auto bytes = static_cast<std::size_t>(size);
    if (bytes > datagram_.size()) return News::some;  // cut off
    return detail::holdsNetworkNews({datagram_.data(), bytes}) ? News::some : News::none;
  }

  const FileDescriptor socket_;
  const FileDescriptor endNotice_;
  std::vector<char> datagram_;
};

class HostNetworkEvents final : public NetworkEvents {
 public:
  std::unique_ptr<NetworkEventSource> open() override {
    FileDescriptor socket = openRouteSocket();
    if (!socket) return nullptr;
    FileDescriptor endNotice(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!endNotice) return nullptr;
    return std::make_unique<HostEventSource>(std::move(socket), std::move(endNotice));
  }
};

}  // namespace

std::atomic<NetworkEvents*>& NetworkEvents::slot() {
  static std::atomic<NetworkEvents*> slot{
      new HostNetworkEvents};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
