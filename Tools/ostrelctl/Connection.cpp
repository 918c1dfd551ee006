#include "ostrelctl/Connection.h"

#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/SocketAddress.h"
#include "Platform/UserDatabase.h"
#include "Shared/DaemonFiles.h"
#include "ostrelctl/PasswordPrompt.h"
#include "ostrelctl/RequestArguments.h"

namespace ostrel {
namespace {

constexpr const char* tlsPort = "311";  // the one port on which a session speaks TLS

struct Endpoint {
  std::string host;
  std::string port;
};

/// What the daemon of this machine left below the root; absent when none runs.
std::optional<Endpoint> localEndpoint() {
  const auto line = readWholeFile(daemonFiles::endpoint(), 256);
  const std::size_t space = line ? line->find(' ') : std::string::npos;
  if (space == std::string::npos) return std::nullopt;
  return Endpoint{line->substr(0, space), line->substr(space + 1, line->find('\n') - space - 1)};
}

Endpoint endpointFor(const SharedOptions& options) {
  if (!options.host.empty() || !options.port.empty()) {
    return {options.host.empty() ? "localhost" : options.host, options.port.empty() ? tlsPort : options.port};
  }
  return localEndpoint().value_or(Endpoint{"localhost", tlsPort});
}

bool isThisMachine(const std::string& host) {
  const auto ipv4 = SocketAddress::ipv4(host);
  return host == "localhost" || host == "::1" || (ipv4 && ipv4->numericHost().starts_with("127."));
}

/// A daemon that listens on every address is reached on this machine by its loopback address.
std::string reachable(const std::string& host) {
  if (host == "0.0.0.0") return "127.0.0.1";
  if (host == "::") return "::1";
  return host;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find_first_of("\r\n")); }

/// The name to present: the one that was given, or, with a password, this user's own.
std::string userFor(const SharedOptions& options) {
  if (!options.user.empty() || options.passwordFile.empty()) return options.user;
  return ownUserName();
}

bool addCredentials(DaemonConnection& connection, const SharedOptions& options, bool isLocal, std::string& fault) {
  OstrelDaemonSession& session = *connection.session;
  const auto present = [&](std::string identifier, Credentials kind) {
    session._setSessionID(std::move(identifier));
    connection.credentials = kind;
    return true;
  };
  if (const std::string user = userFor(options); !user.empty()) {
    auto password = passwordOf(user, options.passwordFile, fault);
    if (!password) return false;
    session.setUserName(user);
    session.setPassword(std::move(password));
    connection.credentials = Credentials::password;
    return true;
  }
  if (!options.sessionFile.empty()) {
    const auto content = contentOf(options.sessionFile, fault);
    return content && present(firstLine(*content), Credentials::sessionFile);
  }
  if (auto identifier = connection.saved.read()) return present(std::move(*identifier), Credentials::saved);
  // The local session is nobody else's business: it never leaves this machine.
  if (!isLocal) return true;
  if (const auto identifier = readWholeFile(daemonFiles::localSession(), 1024)) {
    return present(firstLine(*identifier), Credentials::local);
  }
  if (errno == EACCES) {
    fault = format(
        "%s belongs to another user: run ostrelctl as the user that ostreld runs as, or sign in with "
        "'ostrelctl login'",
        daemonFiles::localSession());
    return false;
  }
  return true;
}

}  // namespace

std::string ownUserName() {
  const auto user = UserDatabase::current().userWithId(geteuid());
  return user ? user->name : "";
}

std::optional<DaemonConnection> connectionFor(const SharedOptions& options, std::string& fault) {
  const Endpoint endpoint = endpointFor(options);
  const std::string host = reachable(endpoint.host);
  const bool isLocal = isThisMachine(host);
  const bool isPlain = endpoint.port != tlsPort;
  DaemonConnection connection{OstrelDaemonSession::init(), Credentials::none, SavedSession(host, endpoint.port)};
  const bool carriesCredentials = !userFor(options).empty() || !options.sessionFile.empty() || connection.saved.read();
  if (isPlain && !isLocal && carriesCredentials && !options.insecure) {
    fault = format("port %s of %s is spoken to without TLS: credentials are not sent (--insecure sends them)",
                   endpoint.port, host);
    return std::nullopt;
  }
  connection.session->setHost(host.find(':') == std::string::npos ? host : "[" + host + "]");
  connection.session->setPort(endpoint.port);
  connection.session->setForceValidCertificate(options.verifyCertificate || (!isLocal && !options.insecure));
  if (!addCredentials(connection, options, isLocal, fault)) return std::nullopt;
  return connection;
}

}  // namespace ostrel
