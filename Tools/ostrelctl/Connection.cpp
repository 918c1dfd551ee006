#include "ostrelctl/Connection.h"

#include <fcntl.h>
#include <termios.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "Containers/Format.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/SocketAddress.h"
#include "Shared/DaemonFiles.h"
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

std::optional<std::string> firstLineOf(const std::string& file, std::string& fault) {
  const auto content = contentOf(file, fault);
  if (!content) return std::nullopt;
  return firstLine(*content);
}

std::optional<std::string> askForPassword(const std::string& user, std::string& fault) {
  const FileDescriptor terminal = openFile("/dev/tty", O_RDWR | O_NOCTTY);
  termios before{};
  if (!terminal || tcgetattr(terminal.get(), &before) != 0) {
    fault = "there is no terminal to ask for the password on: use --password-file";
    return std::nullopt;
  }
  termios hidden = before;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  writeFully(terminal.get(), format("Password of %s: ", user));
  tcsetattr(terminal.get(), TCSAFLUSH, &hidden);
  char line[1024];
  const ssize_t size = readSome(terminal.get(), line, sizeof line);
  tcsetattr(terminal.get(), TCSAFLUSH, &before);
  writeFully(terminal.get(), "\n");
  if (size > 0) return firstLine(std::string(line, static_cast<std::size_t>(size)));
  fault = "no password was given";
  return std::nullopt;
}

bool addCredentials(OstrelDaemonSession& session, const SharedOptions& options, bool isLocal, std::string& fault) {
  if (!options.user.empty()) {
    auto password =
        options.passwordFile.empty() ? askForPassword(options.user, fault) : firstLineOf(options.passwordFile, fault);
    if (!password) return false;
    session.setUserName(options.user);
    session.setPassword(std::move(password));
    return true;
  }
  if (!options.sessionFile.empty()) {
    auto identifier = firstLineOf(options.sessionFile, fault);
    if (!identifier) return false;
    session._setSessionID(std::move(identifier));
    return true;
  }
  // The local session is nobody else's business: it never leaves this machine.
  if (!isLocal) return true;
  const auto identifier = readWholeFile(daemonFiles::localSession(), 1024);
  if (identifier) {
    session._setSessionID(firstLine(*identifier));
  } else if (errno == EACCES) {
    fault = format("%s belongs to another user: run ostrelctl as the user that ostreld runs as",
                   daemonFiles::localSession());
    return false;
  }
  return true;
}

}  // namespace

std::shared_ptr<OstrelDaemonSession> sessionFor(const SharedOptions& options, std::string& fault) {
  const Endpoint endpoint = endpointFor(options);
  const std::string host = reachable(endpoint.host);
  const bool isLocal = isThisMachine(host);
  const bool isPlain = endpoint.port != tlsPort;
  const bool carriesCredentials = !options.user.empty() || !options.sessionFile.empty();
  if (isPlain && !isLocal && carriesCredentials && !options.insecure) {
    fault = format("port %s of %s is spoken to without TLS: credentials are not sent (--insecure sends them)",
                   endpoint.port, host);
    return nullptr;
  }
  auto session = OstrelDaemonSession::init();
  session->setHost(host.find(':') == std::string::npos ? host : "[" + host + "]");
  session->setPort(endpoint.port);
  session->setForceValidCertificate(options.verifyCertificate || (!isLocal && !options.insecure));
  if (!addCredentials(*session, options, isLocal, fault)) return nullptr;
  return session;
}

}  // namespace ostrel
