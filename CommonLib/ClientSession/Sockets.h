// Reading and writing a connected stream socket with one status per call: the I/O callbacks of the TLS layer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Containers/Export.h"

// Each takes a socket descriptor, a buffer and a byte count that is replaced by the number of bytes transferred, and
// answers one status of Platform/TlsClient.h: 0, -9803 (would block), -9805 (closed gracefully, or a read error) or
// -36 (I/O error). A call that a signal interrupts goes on. No write raises SIGPIPE.
// The polling pair is for non-blocking descriptors: it waits 1 ms at a time, at most 60000 times a call, however much
// arrives in between. The blocking pair never times out.
// Threads: any; one thread at a time for each direction of a descriptor.
extern "C" {

/// Writes everything. -9803 or -36 when a write fails.
OSTREL_EXPORT std::int32_t _OstrelSocketBlockingWrite(int connection, const void* data, std::size_t* dataLength);
/// Writes everything. -36 when a write fails or the waits are used up, which is logged.
OSTREL_EXPORT std::int32_t _OstrelSocketWrite(int connection, const void* data, std::size_t* dataLength);
/// Fills the buffer. -9805 at the end of the stream or when a read fails.
OSTREL_EXPORT std::int32_t _OstrelSocketBlockingRead(int connection, void* data, std::size_t* dataLength);
/// Fills the buffer. -9805 at the end of the stream or when a read fails, -36 when the waits are used up, which is
/// logged.
OSTREL_EXPORT std::int32_t _OstrelSocketRead(int connection, void* data, std::size_t* dataLength);

}  // extern "C"
