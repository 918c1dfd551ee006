#include "ostreld/ServiceNotice.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "Platform/FileDescriptor.h"

namespace ostrel {

void notifyServiceManager(std::string_view state) {
  const char* variable = std::getenv("NOTIFY_SOCKET");
  if (variable == nullptr) return;
  const std::string_view path = variable;
  sockaddr_un address{};
  // A path, or "@" and an abstract name; anything else names no socket.
  if (path.size() < 2 || path.size() >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@')) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path[0] == '@') address.sun_path[0] = '\0';
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return;
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace ostrel
