#include "Platform/NameResolver.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

namespace ostrel {
namespace {

int nativeFamily(AddressFamily family) {
  switch (family) {
    case AddressFamily::ipv4:
      return AF_INET;
    case AddressFamily::ipv6:
      return AF_INET6;
    case AddressFamily::any:
      break;
  }
  return AF_UNSPEC;
}

bool holdsNul(const std::string& text) { return text.find('\0') != std::string::npos; }

class HostNameResolver final : public NameResolver {
 public:
  Resolution resolve(const std::string& host, const std::string& service, AddressFamily family) override {
    Resolution outcome;
    if (host.empty() || holdsNul(host) || holdsNul(service)) {
      outcome.error = EAI_NONAME;
      return outcome;
    }
    addrinfo hints{};
    hints.ai_family = nativeFamily(family);
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    outcome.error = getaddrinfo(host.c_str(), service.empty() ? nullptr : service.c_str(), &hints, &found);
    if (outcome.error != 0) {
      if (outcome.error == EAI_SYSTEM) outcome.systemError = errno;
      return outcome;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, &freeaddrinfo);
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next)
      outcome.addresses.emplace_back(entry->ai_addr, entry->ai_addrlen);
    if (outcome.addresses.empty()) outcome.error = EAI_NONAME;
    return outcome;
  }

  std::optional<HostAndService> nameOf(const SocketAddress& address, NameForm form) override {
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    const int flags = form == NameForm::numeric ? NI_NUMERICHOST | NI_NUMERICSERV : 0;
    if (getnameinfo(address.get(), address.length(), host, sizeof host, service, sizeof service, flags) != 0)
      return std::nullopt;
    return HostAndService{host, service};
  }
};

}  // namespace

bool NameResolver::sameHost(const std::string& hostA, const std::string& hostB) {
  const Resolution left = resolve(hostA, "", AddressFamily::any);
  if (left.addresses.empty()) return false;
  const Resolution right = resolve(hostB, "", AddressFamily::any);
  return std::ranges::any_of(left.addresses, [&](const SocketAddress& address) {
    return std::ranges::any_of(right.addresses, [&](const SocketAddress& other) { return address.isSameHost(other); });
  });
}

std::string NameResolver::errorText(const Resolution& failed) {
  if (failed.error == EAI_SYSTEM) return std::generic_category().message(failed.systemError);
  return gai_strerror(failed.error);
}

std::atomic<NameResolver*>& NameResolver::slot() {
  static std::atomic<NameResolver*> slot{
      new HostNameResolver};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
