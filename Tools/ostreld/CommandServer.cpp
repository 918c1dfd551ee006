#include "ostreld/CommandServer.h"

#include <gnutls/gnutls.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <thread>
#include <utility>
#include <vector>

#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/FileDescriptor.h"
#include "Platform/SystemLog.h"
#include "ostreld/CommandThreads.h"

namespace ostrel {
namespace {

using Connection = ConnectionTable::Connection;

constexpr const char* tlsPriorities = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:%SERVER_PRECEDENCE";
// The HTTP library keeps both heads of a connection and the body's next piece in one block of memory.
constexpr std::size_t connectionMemoryBesidesHead = 24 * 1024;

// Clients read a plain reply in pieces of this size, and take one that ends with a whole piece for a broken connection.
constexpr std::size_t clientReadSize = 8192;
constexpr std::size_t largestReplyHead = 1024;
constexpr std::size_t replyPadding = 2 * largestReplyHead;

/// True when head and body together might be a multiple of `clientReadSize`, whatever the head's exact length. With
/// `replyPadding` more bytes they are not.
bool needsPadding(std::size_t bodySize) {
  return bodySize % clientReadSize == 0 || bodySize % clientReadSize > clientReadSize - largestReplyHead;
}

class SessionTicketKey {
 public:
  SessionTicketKey() { gnutls_session_ticket_key_generate(&key_); }
  ~SessionTicketKey() {
    gnutls_memset(key_.data, 0, key_.size);
    gnutls_free(key_.data);
  }
  SessionTicketKey(const SessionTicketKey&) = delete;
  SessionTicketKey& operator=(const SessionTicketKey&) = delete;
  const gnutls_datum_t* get() const { return &key_; }

 private:
  gnutls_datum_t key_{};
};

std::string faultOfListening(const SocketAddress& address, int error) {
  const std::string where = addressAndPort(address);
  std::string what = format("cannot listen on %s: %s", where, std::strerror(error));
  switch (error) {
    case EACCES:
      return what + "; ports below 1024 need root or the capability CAP_NET_BIND_SERVICE: choose another with --port";
    case EADDRINUSE:
      return what + "; find its user with 'ss -ltnp', or choose another port with --port";
    case EADDRNOTAVAIL:
      return what + "; choose an address of this host with --bind";
    default:
      return what;
  }
}

FileDescriptor listenOn(SocketAddress& address, std::string& fault) {
  FileDescriptor descriptor(socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  if (descriptor && setsockopt(descriptor.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      bind(descriptor.get(), address.get(), address.length()) == 0 && listen(descriptor.get(), SOMAXCONN) == 0 &&
      getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&bound), &length) == 0) {
    address = SocketAddress(reinterpret_cast<const sockaddr*>(&bound), length);
    return descriptor;
  }
  fault = faultOfListening(address, errno);
  return {};
}

std::string_view textOf(const char* text) { return text == nullptr ? std::string_view() : std::string_view(text); }

std::string_view headerOf(MHD_Connection* connection, const char* name) {
  return textOf(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name));
}

std::vector<HeaderField> headersOf(MHD_Connection* connection) {
  std::vector<HeaderField> headers;
  const auto add = [](void* list, MHD_ValueKind, const char* name, std::size_t nameSize, const char* value,
                      std::size_t valueSize) {
    static_cast<std::vector<HeaderField>*>(list)->push_back({{name, nameSize}, {value, valueSize}});
    return MHD_YES;
  };
  MHD_get_connection_values_n(connection, MHD_HEADER_KIND, add, &headers);
  return headers;
}

/// A number too large to hold counts as the largest: it is above every limit. The HTTP library refuses what is none.
std::optional<std::uint64_t> contentLengthOf(MHD_Connection* connection) {
  const std::string_view text = headerOf(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (text.empty()) return std::nullopt;
  std::uint64_t length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  return error == std::errc() ? length : UINT64_MAX;
}

/// What the HTTP library keeps for us between its calls for one request.
struct Request {
  CommandExchange exchange;
  bool waitsForReply = false;    ///< not for its body: it asked for leave to send it, or where it ends is unknown
  bool isJudged = false;         ///< the head is, with the sign-in that it may ask for
  std::optional<Reply> reply{};  ///< once the command has run
};

/// Few threads that last carry all TLS connections, and each command has one of its own meanwhile: GnuTLS keeps some
/// memory of every thread that it ever ran on until the process ends, so a thread a connection would make the daemon
/// grow. Plain connections have a thread each, which runs their command too.
unsigned int carrierThreads() { return std::clamp(std::thread::hardware_concurrency(), 2U, 8U); }

/// Reads for GnuTLS, but nothing more once the request is whole: the HTTP library would take the end of a client's
/// sending half for the end of the connection, and drop the reply.
ssize_t pullRequest(gnutls_transport_ptr_t connection, void* buffer, std::size_t size) {
  auto* entry = static_cast<Connection*>(connection);
  if (entry->isWhole) {
    errno = EAGAIN;
    return -1;
  }
  return recv(entry->descriptor, buffer, size, 0);
}

int waitForRequest(gnutls_transport_ptr_t connection, unsigned int milliseconds) {
  pollfd waiting{static_cast<Connection*>(connection)->descriptor, POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(milliseconds));
}

class HttpCommandServer final : public CommandServer {
 public:
  HttpCommandServer(const CommandServerOptions& options, ExchangeRules rules)
      : rules_(std::move(rules)), connections_(options.connections), isPlain_(!options.tls) {}
  ~HttpCommandServer() override {
    commands_.waitUntilNone();  // the library must not be stopped while a command holds a connection
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  }

  bool begin(const CommandServerOptions& options, std::string& fault);
  const SocketAddress& address() const override { return address_; }
  ConnectionTable& connections() override { return connections_; }

  void stopListening() override {
    if (MHD_quiesce_daemon(daemon_) == MHD_INVALID_SOCKET) return;
    // The library may still poll the descriptor, so it stays open; shut down, it refuses connections.
    shutdown(listener_.get(), SHUT_RDWR);
  }

 private:
  // Callbacks of the HTTP library. `self` is the server.
  static MHD_Result onAccept(void* self, const sockaddr* address, socklen_t length);
  static void onConnection(void* self, MHD_Connection* connection, void** socketContext,
                           MHD_ConnectionNotificationCode code);
  static MHD_Result onRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                              const char* version, const char* body, std::size_t* bodySize, void** exchange);
  static void onCompleted(void* self, MHD_Connection* connection, void** exchange, MHD_RequestTerminationCode code);
  static std::size_t leaveEscapesAlone(void*, MHD_Connection*, char* text) { return std::strlen(text); }
  static void onMessage(void* self, const char* text, va_list arguments);

  void enter(MHD_Connection* connection, void** socketContext);
  void leave(Connection* connection);
  MHD_Result handle(MHD_Connection* connection, std::string_view path, std::string_view method,
                    std::string_view bodyPart, std::size_t* bodySize, void** exchange);
  MHD_Result signIn(MHD_Connection* connection, Request& request);
  void run(MHD_Connection* connection, Request& request);
  MHD_Result send(MHD_Connection* connection, Request& request);
  MHD_Result queue(MHD_Connection* connection, Reply reply) const;
  static Connection* entryOf(MHD_Connection* connection) {
    return static_cast<Connection*>(
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
  }

  const ExchangeRules rules_;
  ConnectionTable connections_;
  const bool isPlain_;
  const SessionTicketKey ticketKey_;
  SocketAddress address_;
  FileDescriptor listener_;
  MHD_Daemon* daemon_ = nullptr;
  CommandThreads commands_;
  // Belong to the thread that starts the server.
  const std::thread::id starter_ = std::this_thread::get_id();
  std::string startMessage_;
  bool isStarted_ = false;
};

bool HttpCommandServer::begin(const CommandServerOptions& options, std::string& fault) {
  address_ = options.address;
  listener_ = listenOn(address_, fault);
  if (!listener_) return false;

  unsigned int flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_USE_ITC | MHD_USE_ERROR_LOG;
  if (address_.isIPv6()) flags |= MHD_USE_IPv6;
  std::vector<MHD_OptionItem> tls;
  if (!options.tls) {
    flags |= MHD_USE_THREAD_PER_CONNECTION;
  } else {
    flags |= MHD_USE_TLS | MHD_ALLOW_SUSPEND_RESUME;
    tls.push_back({MHD_OPTION_THREAD_POOL_SIZE, carrierThreads(), nullptr});
    const auto add = [&tls](MHD_OPTION option, const char* text) {
      tls.push_back({option, 0, const_cast<char*>(text)});
    };
    add(MHD_OPTION_HTTPS_MEM_CERT, options.tls->certificate.c_str());
    add(MHD_OPTION_HTTPS_MEM_KEY, options.tls->key.c_str());
    add(MHD_OPTION_HTTPS_PRIORITIES, tlsPriorities);
  }
  tls.push_back({MHD_OPTION_END, 0, nullptr});

  // The library's own limit on connections, of which each carrier gets its share, lies above ours, so that every
  // refusal passes `onAccept`.
  daemon_ =
      MHD_start_daemon(flags, 0, &onAccept, this, &onRequest, this,                                               //
                       MHD_OPTION_EXTERNAL_LOGGER, &onMessage, this,                                              //
                       MHD_OPTION_LISTEN_SOCKET, listener_.get(),                                                 //
                       MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned int>(options.connections.total + 64),    //
                       MHD_OPTION_CONNECTION_MEMORY_LIMIT, 2 * rules_.maximumHead + connectionMemoryBesidesHead,  //
                       MHD_OPTION_UNESCAPE_CALLBACK, &leaveEscapesAlone, nullptr,                                 //
                       MHD_OPTION_NOTIFY_CONNECTION, &onConnection, this,                                         //
                       MHD_OPTION_NOTIFY_COMPLETED, &onCompleted, this,                                           //
                       MHD_OPTION_ARRAY, tls.data(), MHD_OPTION_END);
  isStarted_ = true;
  if (daemon_ == nullptr) fault = format("cannot serve %s: %s", addressAndPort(address_), startMessage_);
  return daemon_ != nullptr;
}

MHD_Result HttpCommandServer::onAccept(void* self, const sockaddr* address, socklen_t length) {
  auto* server = static_cast<HttpCommandServer*>(self);
  const SocketAddress peer(address, length);
  const std::string reason = server->connections_.refusal(peer);
  if (reason.empty()) return MHD_YES;
  writeAudit({.who = {}, .from = addressAndPort(peer), .module = {}, .command = {}, .outcome = "refused " + reason});
  return MHD_NO;
}

void HttpCommandServer::onConnection(void* self, MHD_Connection* connection, void** socketContext,
                                     MHD_ConnectionNotificationCode code) {
  auto* server = static_cast<HttpCommandServer*>(self);
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    server->enter(connection, socketContext);
  } else {
    server->leave(static_cast<Connection*>(*socketContext));
  }
}

void HttpCommandServer::enter(MHD_Connection* connection, void** socketContext) {
  const int descriptor = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  const sockaddr* peer = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr;
  const socklen_t length = peer->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  *socketContext = connections_.enter(descriptor, SocketAddress(peer, length));
  if (isPlain_) return;
  // The handshake has not begun: clients of several requests will resume this session in the next ones.
  auto* session = static_cast<gnutls_session_t>(
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION)->tls_session);
  if (session == nullptr) return;
  gnutls_session_ticket_enable_server(session, ticketKey_.get());
  gnutls_transport_set_ptr2(session, *socketContext,
                            reinterpret_cast<gnutls_transport_ptr_t>(std::intptr_t{descriptor}));
  gnutls_transport_set_pull_function(session, &pullRequest);
  gnutls_transport_set_pull_timeout_function(session, &waitForRequest);
}

void HttpCommandServer::leave(Connection* connection) {
  const AuditRecord record{.who = {},
                           .from = connection->from,
                           .module = {},
                           .command = {},
                           .outcome = "refused " + connections_.endingReason(connection),
                           .duration = Clock::current().monotonic() - connection->accepted};
  if (connections_.leave(connection)) writeAudit(record);
}

MHD_Result HttpCommandServer::onRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                                        const char* /*version*/, const char* body, std::size_t* bodySize,
                                        void** exchange) {
  auto* server = static_cast<HttpCommandServer*>(self);
  try {
    return server->handle(connection, textOf(url), textOf(method), {body, *bodySize}, bodySize, exchange);
  } catch (const std::exception& error) {
    logAt(LogLevel::error, "[%d] ostreld gave a request up: %s", processId(), error.what());
    return MHD_NO;
  }
}

MHD_Result HttpCommandServer::handle(MHD_Connection* connection, std::string_view path, std::string_view method,
                                     std::string_view bodyPart, std::size_t* bodySize, void** exchange) {
  auto* current = static_cast<Request*>(*exchange);
  if (current == nullptr) {
    const RequestHead head{
        .method = method,
        .path = path,
        .bytes = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE)->header_size,
        .headers = judgeHeaders(headersOf(connection)),
        .contentLength = contentLengthOf(connection),
        .isChunked = !headerOf(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING).empty(),
        .sessionIdentifier = headerOf(connection, "OstrelSessionID"),
        .authorization = headerOf(connection, MHD_HTTP_HEADER_AUTHORIZATION)};
    current = new Request{CommandExchange(rules_, {entryOf(connection)->from, entryOf(connection)->peer}, head)};
    *exchange = current;
    current->waitsForReply =
        !headerOf(connection, MHD_HTTP_HEADER_EXPECT).empty() || head.headers != RequestFault::none;
    if (current->exchange.needsSignIn()) {
      if (!isPlain_) return signIn(connection, *current);
      current->exchange.signIn();
    }
  }
  if (!current->isJudged) {
    current->isJudged = true;
    // A refused client that waits for leave to send its body is told at once. Others send it whatever we say, and
    // would miss the reply if the connection closed while they do: their bytes are read and dropped first. Where the
    // body ends is unknown when the headers are at odds.
    return current->exchange.isRefused() && current->waitsForReply ? send(connection, *current) : MHD_YES;
  }
  if (current->reply) return send(connection, *current);  // the command has run
  if (current->exchange.isFinished()) return MHD_YES;     // refused and answered before its body
  if (*bodySize == 0) {
    connections_.beginCommand(entryOf(connection));
    if (isPlain_ || current->exchange.isRefused()) return send(connection, *current);
    run(connection, *current);
    return MHD_YES;
  }
  current->exchange.receive(bodyPart);
  *bodySize = 0;
  return MHD_YES;
}

/// Checking a password is slow: the library leaves the connection alone meanwhile, then calls `handle` with the same
/// head once more.
MHD_Result HttpCommandServer::signIn(MHD_Connection* connection, Request& request) {
  MHD_suspend_connection(connection);
  commands_.start([connection, &request] {
    try {
      request.exchange.signIn();
    } catch (const std::exception& error) {
      logAt(LogLevel::error, "[%d] ostreld gave a request up: %s", processId(), error.what());
    }
    MHD_resume_connection(connection);
  });
  return MHD_YES;
}

/// The library leaves the connection alone until the command has run, then calls `handle` once more.
void HttpCommandServer::run(MHD_Connection* connection, Request& request) {
  entryOf(connection)->isWhole = true;
  MHD_suspend_connection(connection);
  commands_.start([connection, &request] {
    try {
      request.reply = request.exchange.finish();
    } catch (const std::exception& error) {
      logAt(LogLevel::error, "[%d] ostreld gave a request up: %s", processId(), error.what());
      request.reply.emplace().status = MHD_HTTP_INTERNAL_SERVER_ERROR;
    }
    MHD_resume_connection(connection);
  });
}

MHD_Result HttpCommandServer::send(MHD_Connection* connection, Request& request) {
  Connection* entry = entryOf(connection);
  Reply reply = request.reply ? *std::exchange(request.reply, std::nullopt) : request.exchange.finish();
  connections_.markAudited(entry);
  connections_.beginReply(entry);
  return queue(connection, std::move(reply));
}

MHD_Result HttpCommandServer::queue(MHD_Connection* connection, Reply reply) const {
  auto* body = new std::string(std::move(reply.body));
  MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
      body->size(), body->data(), [](void* text) { delete static_cast<std::string*>(text); }, body);
  if (response == nullptr) {
    delete body;
    return MHD_NO;
  }
  MHD_set_response_options(response, MHD_RF_HTTP_1_0_SERVER, MHD_RO_END);
  reply.headers.emplace_back(MHD_HTTP_HEADER_CONNECTION, "close");
  reply.headers.emplace_back(MHD_HTTP_HEADER_CONTENT_TYPE, reply.contentType);
  reply.headers.emplace_back(MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  if (isPlain_ && needsPadding(body->size())) reply.headers.emplace_back("X-Padding", std::string(replyPadding, '.'));
  for (const auto& [name, value] : reply.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
  const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned int>(reply.status), response);
  MHD_destroy_response(response);
  return queued;
}

void HttpCommandServer::onCompleted(void* self, MHD_Connection* connection, void** exchange,
                                    MHD_RequestTerminationCode /*code*/) {
  auto* server = static_cast<HttpCommandServer*>(self);
  const std::unique_ptr<Request> current(static_cast<Request*>(*exchange));
  *exchange = nullptr;
  if (!current || current->exchange.isFinished()) return;
  Connection* entry = entryOf(connection);
  current->exchange.abandon(server->connections_.endingReason(entry));
  server->connections_.markAudited(entry);
}

/// While it starts, the library says why it does not; afterwards it tells of clients that break off.
void HttpCommandServer::onMessage(void* self, const char* text, va_list arguments) {
  auto* server = static_cast<HttpCommandServer*>(self);
  char line[512];
  if (std::vsnprintf(line, sizeof line, text, arguments) <= 0) return;
  if (std::this_thread::get_id() == server->starter_ && !server->isStarted_) {
    server->startMessage_ = line;
  } else {
    logAt(LogLevel::debug, "[%d] HTTP library: %s", processId(), static_cast<const char*>(line));
  }
}

}  // namespace

std::unique_ptr<CommandServer> CommandServer::start(const CommandServerOptions& options, ExchangeRules rules,
                                                    std::string& fault) {
  auto server = std::make_unique<HttpCommandServer>(options, std::move(rules));
  if (!server->begin(options, fault)) return nullptr;
  return server;
}

}  // namespace ostrel
