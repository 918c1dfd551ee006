#include "Platform/TlsClient.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <map>
#include <tuple>
#include <utility>

#include "Platform/Internal/TlsCallbackBio.h"
#include "Platform/Internal/TlsSessionCache.h"
#include "Platform/Mutex.h"

namespace ostrel {
namespace {

struct SslDeleter {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct ContextDeleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using ContextPointer = std::unique_ptr<SSL_CTX, ContextDeleter>;

/// Empties the library's error queue, which tells how the next call went. Clearing an empty one is slow.
void forgetErrors() {
  if (ERR_peek_error() != 0) ERR_clear_error();
}

class OpenSslConnection final : public TlsConnection {
 public:
  ~OpenSslConnection() override = default;

  /// False when the library refuses a step.
  bool prepare(SSL_CTX* context, const TlsClientOptions& options);

  IoStatus handshake() override;
  IoStatus read(void* data, std::size_t* length) override;
  IoStatus write(const void* data, std::size_t* length) override;
  IoStatus close() override;
  bool wasResumed() const override {
    return SSL_is_init_finished(ssl_.get()) != 0 && SSL_session_reused(ssl_.get()) != 0;
  }

  void keepSession(SSL_SESSION* session) const {
    if (!sessionKey_.empty()) TlsSessionCache::shared().put(sessionKey_, session);
  }

 private:
  bool setPeerName(const TlsClientOptions& options);
  void resumeSession(const TlsClientOptions& options);
  IoStatus statusOf(int result);

  TlsCallbackChannel channel_;  // before `ssl_`, which uses it
  std::unique_ptr<SSL, SslDeleter> ssl_;
  std::string sessionKey_;
  IoStatus failure_ = ioCompleted;
  bool closed_ = false;
};

int acceptAnyCertificate(X509_STORE_CTX* /*store*/, void* /*argument*/) { return 1; }

int acceptExpired(int accepted, X509_STORE_CTX* store) {
  if (accepted != 0) return accepted;
  switch (X509_STORE_CTX_get_error(store)) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      X509_STORE_CTX_set_error(store, X509_V_OK);
      return 1;
    default:
      return 0;
  }
}

int acceptAnyRoot(int accepted, X509_STORE_CTX* store) {
  if (accepted != 0) return accepted;
  switch (X509_STORE_CTX_get_error(store)) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
      X509_STORE_CTX_set_error(store, X509_V_OK);
      return 1;
    default:
      return 0;
  }
}

int versionNumber(TlsVersion version) {
  switch (version) {
    case TlsVersion::tls10:
      return TLS1_VERSION;
    case TlsVersion::tls11:
      return TLS1_1_VERSION;
    case TlsVersion::tls12:
      return TLS1_2_VERSION;
    case TlsVersion::tls13:
      break;
  }
  return TLS1_3_VERSION;
}

int keepNewSession(SSL* ssl, SSL_SESSION* session) {
  static_cast<const OpenSslConnection*>(SSL_get_app_data(ssl))->keepSession(session);
  return 0;  // the cache took a copy
}

bool setVerification(SSL_CTX* context, const TlsClientOptions& options) {
  if (options.allowsAnyRoot && options.allowsExpiredCertificates) {
    SSL_CTX_set_cert_verify_callback(context, acceptAnyCertificate, nullptr);
    return true;
  }
  SSL_verify_cb callback = nullptr;
  if (options.allowsExpiredCertificates) callback = acceptExpired;
  if (options.allowsAnyRoot) callback = acceptAnyRoot;
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, callback);
  return SSL_CTX_set_default_verify_paths(context) == 1;
}

ContextPointer makeContext(const TlsClientOptions& options) {
  ContextPointer context(SSL_CTX_new(TLS_client_method()));
  if (context == nullptr || SSL_CTX_set_min_proto_version(context.get(), versionNumber(options.minimumVersion)) != 1 ||
      SSL_CTX_set_max_proto_version(context.get(), TLS1_3_VERSION) != 1 || !setVerification(context.get(), options))
    return nullptr;
  // The old protocols sign with SHA-1, which only the lowest level of the library lets pass.
  if (options.minimumVersion < TlsVersion::tls12) SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(context.get(), keepNewSession);
  return context;
}

/// One context for each kind of connection: reading the store of trusted certificates takes longer than a handshake.
class Contexts {
 public:
  static Contexts& shared() {
    static auto* const contexts = new Contexts;  // connections of late threads may still use them at exit
    return *contexts;
  }
  // For the same reason OpenSSL is not to clean up at exit.
  Contexts() { OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); }

  /// Borrowed for the life of the process; null when the library refuses.
  SSL_CTX* get(const TlsClientOptions& options) {
    const MutexLock lock(mutex_);
    ContextPointer& context =
        contexts_[{options.minimumVersion, options.allowsExpiredCertificates, options.allowsAnyRoot}];
    if (context == nullptr) context = makeContext(options);
    return context.get();
  }

 private:
  Mutex mutex_;
  std::map<std::tuple<TlsVersion, bool, bool>, ContextPointer> contexts_ OSTREL_GUARDED_BY(mutex_);
};

/// Everything that decided about accepting the peer: a session that a lax connection made is nothing to a strict one.
std::string sessionKeyFor(const TlsClientOptions& options) {
  if (options.port.empty()) return {};
  std::string key = options.host + '\0' + options.port + '\0';
  key += static_cast<char>('0' + static_cast<int>(options.minimumVersion));
  key += options.allowsExpiredCertificates ? 'e' : '-';
  key += options.allowsAnyRoot ? 'r' : '-';
  return key;
}

bool OpenSslConnection::prepare(SSL_CTX* context, const TlsClientOptions& options) {
  channel_.readCallback = options.read;
  channel_.writeCallback = options.write;
  channel_.connection = options.connection;
  ssl_.reset(SSL_new(context));
  if (ssl_ == nullptr) return false;
  BIO* bio = makeTlsCallbackBio(channel_);
  if (bio == nullptr) return false;
  SSL_set_bio(ssl_.get(), bio, bio);
  SSL_set_connect_state(ssl_.get());
  SSL_set_app_data(ssl_.get(), this);
  if (!setPeerName(options)) return false;
  sessionKey_ = sessionKeyFor(options);
  resumeSession(options);
  return true;
}

bool OpenSslConnection::setPeerName(const TlsClientOptions& options) {
  if (options.host.empty()) return true;
  if (options.host.find('\0') != std::string::npos) return false;
  const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> address(
      a2i_IPADDRESS(options.host.c_str()), ASN1_OCTET_STRING_free);
  if (address == nullptr && SSL_set_tlsext_host_name(ssl_.get(), options.host.c_str()) != 1) return false;
  if (options.allowsAnyRoot) return true;
  X509_VERIFY_PARAM* parameters = SSL_get0_param(ssl_.get());
  X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return address == nullptr ? X509_VERIFY_PARAM_set1_host(parameters, options.host.c_str(), options.host.size()) == 1
                            : X509_VERIFY_PARAM_set1_ip_asc(parameters, options.host.c_str()) == 1;
}

void OpenSslConnection::resumeSession(const TlsClientOptions& options) {
  if (sessionKey_.empty()) return;
  const TlsSessionPointer session = TlsSessionCache::shared().get(sessionKey_, !options.allowsExpiredCertificates);
  if (session != nullptr) SSL_set_session(ssl_.get(), session.get());
}

/// The status of a call that failed. Requires: the library's error queue was empty before the call.
IoStatus OpenSslConnection::statusOf(int result) {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_ZERO_RETURN:
      return ioClosedGracefully;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return ioWouldBlock;
    default:
      break;
  }
  failure_ = ioFailed;
  // Below TLS a stream only ever just ends; had the peer said so before, the case above would have told it.
  if (channel_.readStatus == ioClosedGracefully || channel_.readStatus == ioClosedAbruptly) failure_ = ioClosedAbruptly;
  forgetErrors();
  return failure_;
}

IoStatus OpenSslConnection::handshake() {
  if (failure_ != ioCompleted) return failure_;
  forgetErrors();
  channel_.gathers = true;
  const int result = SSL_do_handshake(ssl_.get());
  if (result == 1) return ioCompleted;
  const IoStatus status = statusOf(result);
  // What is left unsent is the alert that tells the peer why.
  if (status == ioFailed && channel_.writeStatus == ioCompleted) channel_.sendUnsent();
  return status;
}

IoStatus OpenSslConnection::read(void* data, std::size_t* length) {
  const std::size_t capacity = std::exchange(*length, 0);
  if (failure_ != ioCompleted) return failure_;
  forgetErrors();
  channel_.gathers = false;
  const int result = SSL_read_ex(ssl_.get(), data, capacity, length);
  return result == 1 ? ioCompleted : statusOf(result);
}

IoStatus OpenSslConnection::write(const void* data, std::size_t* length) {
  const std::size_t size = std::exchange(*length, 0);
  if (failure_ != ioCompleted) return failure_;
  if (size == 0) return ioCompleted;
  forgetErrors();
  channel_.gathers = false;
  const int result = SSL_write_ex(ssl_.get(), data, size, length);
  return result == 1 ? ioCompleted : statusOf(result);
}

IoStatus OpenSslConnection::close() {
  if (closed_ || failure_ != ioCompleted || SSL_is_init_finished(ssl_.get()) == 0) return ioCompleted;
  forgetErrors();
  channel_.gathers = false;
  const int result = SSL_shutdown(ssl_.get());
  const IoStatus status = result >= 0 ? ioCompleted : statusOf(result);
  closed_ = status != ioWouldBlock;
  return status;
}

class OpenSslClient final : public TlsClient {
 public:
  std::unique_ptr<TlsConnection> connect(const TlsClientOptions& options, IoStatus* status) override {
    *status = ioFailed;
    SSL_CTX* context = Contexts::shared().get(options);
    if (context == nullptr || options.read == nullptr || options.write == nullptr) return nullptr;
    auto connection = std::make_unique<OpenSslConnection>();
    const bool prepared = connection->prepare(context, options);
    forgetErrors();
    if (!prepared) return nullptr;
    *status = ioCompleted;
    return connection;
  }
};

}  // namespace

std::atomic<TlsClient*>& TlsClient::slot() {
  static std::atomic<TlsClient*> slot{new OpenSslClient};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
