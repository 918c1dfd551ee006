// The client side of TLS over callbacks that read and write (TLS 1.2: RFC 5246, TLS 1.3: RFC 8446).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// The outcome of one I/O call, of a socket or of TLS. There is no other number.
enum IoStatus : std::int32_t {
  ioCompleted = 0,             ///< everything asked for was transferred
  ioWouldBlock = -9803,        ///< nothing more can be transferred now
  ioClosedGracefully = -9805,  ///< end of the stream
  ioClosedAbruptly = -9816,    ///< the stream ended without TLS's notice of it
  ioFailed = -36,              ///< any other failure, an exhausted time-out included
};

/// The callbacks of a TLS connection: the handle, a buffer, and a byte count that is replaced by the number of bytes
/// transferred. They fill or write the whole buffer, or answer why not: an `IoStatus` other than 0.
using TlsReadCallback = std::int32_t (*)(int connection, void* data, std::size_t* dataLength);
using TlsWriteCallback = std::int32_t (*)(int connection, const void* data, std::size_t* dataLength);

enum class TlsVersion { tls10, tls11, tls12, tls13 };

struct TlsClientOptions {
  TlsReadCallback read = nullptr;    ///< required
  TlsWriteCallback write = nullptr;  ///< required
  int connection = -1;               ///< handed to the callbacks; never closed here

  /// The oldest protocol that is spoken; the newest is TLS 1.3.
  TlsVersion minimumVersion = TlsVersion::tls12;

  /// The peer's name: sent as the server name unless it is an address, and checked against the certificate unless
  /// `allowsAnyRoot`. "" sends and checks nothing.
  std::string host;
  /// The peer's port. Connections to one host and port resume one another's TLS sessions when everything that decides
  /// about the certificate and the protocol is the same too. "" resumes nothing.
  std::string port;

  bool allowsExpiredCertificates = false;
  /// Accepts a certificate whoever signed it, for whatever name.
  bool allowsAnyRoot = false;
};

/// One TLS connection. Threads: one thread at a time. Blocks as long as its callbacks do.
class OSTREL_EXPORT TlsConnection {
 public:
  /// Closes nothing: a connection that was not closed ends without notice to the peer.
  virtual ~TlsConnection() = default;

  /// Agrees on keys and checks the certificate. `ioWouldBlock`: call it again. A certificate that is not acceptable
  /// gives `ioFailed`, and the peer is told. Once it failed, everything but `close` fails too. Its last message may
  /// wait for the first `write`, `read` or `close`, to travel with it.
  virtual IoStatus handshake() = 0;
  /// Reads at most `*length` bytes: what there is of one record. `*length` becomes their number, which is 0 exactly
  /// when the status is not `ioCompleted`. `ioClosedGracefully` after the peer's notice, `ioClosedAbruptly` when the
  /// stream just ended.
  virtual IoStatus read(void* data, std::size_t* length) = 0;
  /// Writes all bytes, with one call of the write callback for each record of up to 16 KiB. On any other status than
  /// `ioCompleted` `*length` becomes 0. After `ioWouldBlock`, call it again with the same bytes.
  virtual IoStatus write(const void* data, std::size_t* length) = 0;
  /// Tells the peer that nothing follows; does not wait for its answer. `ioCompleted` also when there was nothing to
  /// tell: no handshake, one that failed, or a connection already broken. Further calls do nothing.
  virtual IoStatus close() = 0;

  /// True when the handshake was done and continued an earlier connection's session.
  virtual bool wasResumed() const = 0;
};

/// Threads: may be called from any thread. SIGPIPE is the callbacks' business.
class OSTREL_EXPORT TlsClient {
 public:
  virtual ~TlsClient() = default;
  static TlsClient& current() { return *slot().load(std::memory_order_acquire); }

  /// Makes a connection; nothing is sent yet. Null on failure, and `*status` tells it. Trust comes from the host's
  /// store of certificates (or from where SSL_CERT_FILE and SSL_CERT_DIR point), read once in a process.
  virtual std::unique_ptr<TlsConnection> connect(const TlsClientOptions& options, IoStatus* status) = 0;

 private:
  friend class ScopedOverride<TlsClient>;
  static std::atomic<TlsClient*>& slot();
};

}  // namespace ostrel
