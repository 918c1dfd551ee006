// The custom BIO that puts a TLS connection on top of read and write callbacks (BIO_meth_new(3)).
#pragma once

#include <openssl/bio.h>

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
};

/// A BIO over the channel; null when there is no memory. The caller owns it.
BIO* makeTlsCallbackBio(TlsCallbackChannel& channel);

}  // namespace ostrel
