// Host names to addresses and back (getaddrinfo(3), getnameinfo(3)).
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Export.h"
#include "Platform/Service.h"
#include "Platform/SocketAddress.h"

namespace ostrel {

/// Which addresses of a host are asked for.
enum class AddressFamily { any, ipv4, ipv6 };

/// Threads: every operation may be called from any thread. Every operation but the numeric ones may block for as long
/// as the host's resolver takes. Nothing throws except std::bad_alloc.
class OSTREL_EXPORT NameResolver {
 public:
  /// The outcome of a lookup. `addresses` keeps the resolver's order and is empty exactly when `error` is not 0.
  struct Resolution {
    int error = 0;        ///< 0, or an EAI_ number of <netdb.h>
    int systemError = 0;  ///< the errno value behind EAI_SYSTEM
    std::vector<SocketAddress> addresses;
  };
  /// What a reverse lookup found. The texts come from the network: they may be anything, also no UTF-8.
  struct HostAndService {
    std::string host;
    std::string service;
  };
  /// Whether the texts of a reverse lookup are to be numbers, or names where there are any (else numbers).
  enum class NameForm { numeric, names };

  virtual ~NameResolver() = default;
  static NameResolver& current() { return *slot().load(std::memory_order_acquire); }

  /// The stream-socket addresses of `host` (name or numeric form) with the port that `service` (decimal number or
  /// service name; "": port 0) gives them. An empty host and texts that hold a NUL are not found (EAI_NONAME).
  virtual Resolution resolve(const std::string& host, const std::string& service, AddressFamily family) = 0;
  /// The host and service texts of an address; absent on failure. With `NameForm::numeric` nothing is looked up.
  virtual std::optional<HostAndService> nameOf(const SocketAddress& address, NameForm form) = 0;

  /// True when both hosts resolve and share an address (see `SocketAddress::isSameHost`).
  bool sameHost(const std::string& hostA, const std::string& hostB);
  /// The text for a lookup error (gai_strerror(3), or strerror(3) behind EAI_SYSTEM).
  static std::string errorText(const Resolution& failed);

 private:
  friend class ScopedOverride<NameResolver>;
  static std::atomic<NameResolver*>& slot();
};

}  // namespace ostrel
