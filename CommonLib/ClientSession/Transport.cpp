// One exchange with a daemon: the request's bytes, the connection, the reply.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ClientSession/Internal/HeaderText.h"
#include "ClientSession/OstrelDaemonSession.h"
#include "ClientSession/ReplyHead.h"
#include "ClientSession/Sockets.h"
#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/FileDescriptor.h"
#include "Platform/NameResolver.h"
#include "Platform/Socket.h"
#include "Platform/SystemLog.h"
#include "Platform/TlsClient.h"

namespace ostrel {
namespace {

using Text = OstrelDaemonSession::Text;

constexpr std::size_t chunkSize = 8192;
/// A daemon that never stops talking must not take all memory.
constexpr std::size_t maximumReplySize = std::size_t{1} << 30U;

enum class Stage { resolution, socket, connect, setup, write, read, parse };

struct Failure {
  Stage stage = Stage::resolution;
  int number = 0;
};

std::string failureText(const Failure& failure, const std::string& url) {
  switch (failure.stage) {
    case Stage::resolution:
      return format("HTTP_REQUEST_FAILED: %@: err=%d (getaddrinfo)", url, failure.number);
    case Stage::socket:
      return format("HTTP_REQUEST_FAILED: %@: err=%d (socket)", url, failure.number);
    case Stage::connect:
      return format("HTTP_REQUEST_FAILED: %@: err=%d (connect)", url, failure.number);
    case Stage::setup:
      return format("HTTP_REQUEST_FAILED: %@: err=%d (setup)", url, failure.number);
    case Stage::write:
      return format("HTTP_REQUEST_FAILED: %@: err=%d (write)", url, failure.number);
    case Stage::read:
      return format("HTTP_REQUEST_FAILED: %@: err=%d (read)", url, failure.number);
    case Stage::parse:
      break;
  }
  return format("HTTP_REQUEST_FAILED: %@: err=%d (parse)", url, failure.number);
}

std::string requestBytes(const CommandURL& url, const Text& authHeader, const Text& sessionID,
                         const PlistValue& request) {
  const std::string body = OstrelDaemonSession::encodeRequest(request);
  std::string bytes;
  bytes.reserve(512 + url.text().size() + body.size());
  const auto addHeader = [&bytes](std::string_view name, std::string_view value) {
    bytes.append(name).append(": ").append(value).append("\r\n");
  };
  bytes.append("POST ").append(url.path()).append(" HTTP/1.0\r\n");
  addHeader("Host", url.hostForHeader() + ":" + std::to_string(url.portNumber()));
  // A value that could end its line is no value: the daemon then refuses the caller instead of reading a forged head.
  if (authHeader && fitsHeaderLine(*authHeader)) addHeader("Authorization", *authHeader);
  if (sessionID && !sessionID->empty() && fitsHeaderLine(*sessionID)) addHeader("OstrelSessionID", *sessionID);
  bytes.append("HTTP_USER_AGENT: Plexnet-OstrelDaemonSession\r\n");  // this header's odd name is meant
  addHeader("Content-Length", std::to_string(body.size()));
  return bytes.append("\r\n").append(body);
}

struct ExchangeSettings {
  bool polls = false;             ///< non-blocking socket with time-outs
  bool validCertificate = false;  ///< the daemon's certificate must be valid
};

/// A connection to a daemon and the exchange on it, step by step. A step that fails leaves `failure()`.
class Exchange {
 public:
  Exchange(const CommandURL& url, ExchangeSettings settings, const std::atomic<bool>& askedToAbort)
      : url_(url), settings_(settings), askedToAbort_(askedToAbort) {}

  bool connect();
  bool setUpTls();
  bool send(const std::string& bytes);
  /// Reads the reply up to its end and finds its head.
  bool receive();
  /// Ends the connection. The number of a failure becomes the status of closing when TLS was set up, whatever failed.
  void close();

  const Failure& failure() const { return failure_; }
  bool isBroken() const { return broken_; }
  const ReplyHead& head() const { return head_; }
  /// The reply's body. Requires: `receive` succeeded.
  std::string takeBody() {
    reply_.erase(0, *head_.bodyStart);
    return std::move(reply_);
  }

 private:
  bool usesTls() const { return url_.portText() == "311"; }  // the scheme is not consulted: this is meant
  bool fail(Stage stage, int number) {
    failure_ = {stage, number};
    return false;
  }
  NameResolver::Resolution resolve() const;
  bool connectTo(const SocketAddress& candidate);
  void logConnectFailure(const SocketAddress& candidate, int error) const;
  void prepareSocket();
  std::int32_t readChunk(char* buffer, std::size_t* count);
  bool readReply();

  const CommandURL& url_;
  const ExchangeSettings settings_;
  const std::atomic<bool>& askedToAbort_;
  FileDescriptor socket_;
  std::unique_ptr<TlsConnection> tls_;
  std::string reply_;
  ReplyHead head_;
  std::int32_t readStatus_ = ioCompleted;
  bool broken_ = false;
  Failure failure_;
};

NameResolver::Resolution Exchange::resolve() const {
  if (url_.portNumber() > UINT16_MAX) return {};  // the resolver would take it modulo 65536
  const std::string& host = url_.host();
  // A name on the local link always ends so: for any other host this host's own need not be asked for.
  const bool isLocal =
      host.starts_with("localhost") || (host.ends_with(".local") && host == OstrelDaemonSession::zeroConfName());
  return NameResolver::current().resolve(isLocal ? "localhost" : host, std::to_string(url_.portNumber()),
                                         AddressFamily::any);
}

bool Exchange::connect() {
  fail(Stage::resolution, 0);
  const auto candidates = resolve().addresses;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    // IPv6 is the last resort.
    if (candidates[i].isIPv6() && i + 1 < candidates.size()) continue;
    if (connectTo(candidates[i])) return true;
  }
  return false;
}

bool Exchange::connectTo(const SocketAddress& candidate) {
  socket_ = openStreamSocket(candidate.family());
  if (!socket_) return fail(Stage::socket, errno);
  if (!connectSocket(socket_.get(), candidate)) {
    const int error = errno;
    socket_.reset();
    logConnectFailure(candidate, error);
    return fail(Stage::connect, error);
  }
  prepareSocket();
  return true;
}

void Exchange::logConnectFailure(const SocketAddress& candidate, int error) const {
  const std::string address = candidate.numericHost();
  if (address.empty()) {
    logNotice("[%d] Ostrel session failed in connect(%s): %d\n", processId(), url_.host(), error);
  } else {
    logNotice("[%d] Ostrel session failed in connect(%s,%s,%s): %d\n", processId(), url_.host(), address,
              std::to_string(candidate.port()), error);
  }
}

void Exchange::prepareSocket() {
  setNoDelay(socket_.get());
  if (settings_.polls && !setNonBlocking(socket_.get(), true))
    logNotice("[%d] Ostrel session failed in fcntl(%s:fd=%d)\n", processId(), url_.host(), socket_.get());
}

bool Exchange::setUpTls() {
  if (!usesTls()) return true;
  TlsClientOptions options;
  options.read = settings_.polls ? _OstrelSocketRead : _OstrelSocketBlockingRead;
  options.write = settings_.polls ? _OstrelSocketWrite : _OstrelSocketBlockingWrite;
  options.connection = socket_.get();
  options.host = url_.host();
  options.port = url_.portText();
  options.allowsExpiredCertificates = !settings_.validCertificate;
  options.allowsAnyRoot = !settings_.validCertificate;
  IoStatus status = ioCompleted;
  tls_ = TlsClient::current().connect(options, &status);
  if (tls_ == nullptr) return fail(Stage::setup, status);
  // How it ends is not looked at: after a handshake that failed, writing fails.
  while (tls_->handshake() == ioWouldBlock) {
  }
  return true;
}

bool Exchange::send(const std::string& bytes) {
  std::size_t count = bytes.size();
  std::int32_t status = ioCompleted;
  if (tls_ != nullptr) {
    status = tls_->write(bytes.data(), &count);
  } else {
    const auto write = settings_.polls ? _OstrelSocketWrite : _OstrelSocketBlockingWrite;
    status = write(socket_.get(), bytes.data(), &count);
  }
  return status == ioCompleted || fail(Stage::write, status);
}

std::int32_t Exchange::readChunk(char* buffer, std::size_t* count) {
  *count = chunkSize;
  std::int32_t status = ioCompleted;
  if (tls_ != nullptr) {
    status = tls_->read(buffer, count);
  } else {
    const auto read = settings_.polls ? _OstrelSocketRead : _OstrelSocketBlockingRead;
    status = read(socket_.get(), buffer, count);
  }
  const int error = errno;
  if (settings_.polls && status == ioFailed) {
    logNotice("[%d] Ostrel %s_OstrelSocketRead(%s:fd=%d) failed with %d (errno=%d)\n", processId(),
              tls_ != nullptr ? "SSLRead/" : "", url_.host(), socket_.get(), status, error);
  } else if (status == ioWouldBlock) {
    status = ioCompleted;
  }
  return status;
}

bool Exchange::readReply() {
  char buffer[chunkSize];
  while (true) {
    if (askedToAbort_) {
      readStatus_ = ioCompleted;
      return true;
    }
    std::size_t count = 0;
    readStatus_ = readChunk(buffer, &count);
    if (count == 0) {
      // On plain TCP this also meets a reply whose length is a multiple of the chunk's: this is meant.
      broken_ = readStatus_ == (tls_ != nullptr ? ioClosedAbruptly : ioClosedGracefully);
      if (broken_) return fail(Stage::read, ioClosedAbruptly);
      return readStatus_ == ioCompleted || readStatus_ == ioClosedGracefully || fail(Stage::read, readStatus_);
    }
    if (reply_.empty()) head_ = scanReplyHead({buffer, count});  // only ever the first chunk: this is meant
    reply_.append(buffer, count);
    if (reply_.size() > maximumReplySize) return fail(Stage::read, ioFailed);
    if (readStatus_ == ioClosedGracefully) return true;
    if (readStatus_ != ioCompleted) return fail(Stage::read, readStatus_);
  }
}

bool Exchange::receive() {
  if (!readReply()) return false;
  return (head_.status && head_.bodyStart) || fail(Stage::parse, readStatus_);
}

void Exchange::close() {
  if (tls_ != nullptr) failure_.number = tls_->close();
  tls_.reset();
  socket_.reset();
}

Text brokenConnectionBody() {
  return writeXmlPropertyList(PlistValue::dictionaryOf({{"RawResponse", errors::brokenConnection}}));
}

}  // namespace

Text OstrelDaemonSession::_sendRequestAndWaitForResponseDataWithURL(const CommandURL& url, const Text& authHeader,
                                                                    const PlistValue& request,
                                                                    std::optional<std::uint32_t> /*transactionNb*/,
                                                                    std::int32_t& status, Text& sessionID,
                                                                    Text& failureReason) {
  status = 3;
  sessionID.reset();
  failureReason.reset();

  const std::string bytes = requestBytes(url, authHeader, this->sessionID(), request);
  Exchange exchange(url, {useTimeoutForTransactions_, forceValidCertificate_}, _askedToAbort);
  const bool done = exchange.connect() && exchange.setUpTls() && exchange.send(bytes) && exchange.receive();
  exchange.close();

  if (!done) {
    failureReason = failureText(exchange.failure(), url.text());
    if (!exchange.isBroken()) return std::nullopt;
    status = 1;
    sessionID = this->sessionID();
    return brokenConnectionBody();
  }
  const int httpStatus = *exchange.head().status;
  if (httpStatus == 401 || httpStatus == 407) {
    failureReason = format("HTTP_REQUEST_FAILED: %@: %@", url.text(), "authorization required");
    return std::nullopt;
  }
  if (httpStatus < 200 || httpStatus > 299) {
    failureReason = format("HTTP_REQUEST_FAILED: %@: %d", url.text(), httpStatus);
    return std::nullopt;
  }
  status = 1;
  sessionID = exchange.head().sessionID;
  return exchange.takeBody();
}

}  // namespace ostrel
