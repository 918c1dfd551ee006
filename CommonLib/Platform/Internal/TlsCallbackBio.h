// The custom BIO that puts a TLS connection on top of read and write callbacks (BIO_meth_new(3)).
#pragma once

#include <openssl/bio.h>

#include <string>

#include "Platform/TlsClient.h"

namespace ostrel {

/// What lies below a connection, and how its last read and write went. Outlives the BIO.
struct TlsCallbackChannel {
  TlsReadCallback readCallback = nullptr;
  TlsWriteCallback writeCallback = nullptr;
  int connection = -1;

  IoStatus readStatus = ioCompleted;
  IoStatus writeStatus = ioCompleted;
  /// A read that brought some of the bytes together with a failure: the failure that the next read reports without
  /// asking again. Otherwise a time-out would be waited for twice.
  IoStatus pendingReadStatus = ioCompleted;

  /// While true, writes are only kept in `unsent`. They go out together before the next read, or with the next bytes
  /// that are written when this is false again: the end of a handshake travels in one piece with the first data, which
  /// spares a system call here and a wake-up at the peer.
  bool gathers = false;
  std::string unsent;

  /// Sends what is unsent. Anything but `ioCompleted` leaves the rest for the next call.
  IoStatus sendUnsent();
};

/// A BIO over the channel; null when there is no memory. The caller owns it.
BIO* makeTlsCallbackBio(TlsCallbackChannel& channel);

}  // namespace ostrel
