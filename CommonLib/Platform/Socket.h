// Stream sockets: the calls that client code needs, without their traps (SIGPIPE, interrupted connects, FD_SETSIZE).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>

#include "Containers/Export.h"
#include "Platform/FileDescriptor.h"
#include "Platform/SocketAddress.h"

namespace ostrel {

// Every operation here leaves its reason in errno when it fails and may be called from any thread.

/// A new close-on-exec TCP socket of the family (AF_INET, AF_INET6); none on failure.
OSTREL_EXPORT FileDescriptor openStreamSocket(int family);

/// connect(2). On a blocking socket it returns when the connection stands or has failed, also when signals arrive. On
/// a non-blocking one false with EINPROGRESS means that it is under way.
OSTREL_EXPORT bool connectSocket(int descriptor, const SocketAddress& address);

/// Sets or clears O_NONBLOCK; switches the coalescing of small sends off (TCP_NODELAY).
OSTREL_EXPORT bool setNonBlocking(int descriptor, bool on);
OSTREL_EXPORT bool setNoDelay(int descriptor);

/// Fetches and clears the pending error of a socket (SO_ERROR); 0 when there is none.
OSTREL_EXPORT int takeSocketError(int descriptor);

/// send(2) and recv(2), retried when a signal interrupts them. Sending to a closed connection fails with EPIPE and
/// never raises SIGPIPE. -1 on failure; receiving gives 0 at the end of the stream.
OSTREL_EXPORT ssize_t sendSome(int descriptor, const void* bytes, std::size_t size);
OSTREL_EXPORT ssize_t receiveSome(int descriptor, void* buffer, std::size_t capacity);

/// What a socket is ready for.
struct Readiness {
  bool readable = false;  ///< reading would not block: bytes, the end of the stream, or an error
  bool writable = false;  ///< writing would not block: room, or an error
};
/// Waits until a descriptor of any number is readable or writable, as select(2) with both sets tells it; no time-out
/// waits without limit. Neither when the time is up. Absent when the wait fails (a signal does not end it).
OSTREL_EXPORT std::optional<Readiness> waitUntilReady(int descriptor, std::optional<std::chrono::milliseconds> timeout);

}  // namespace ostrel
