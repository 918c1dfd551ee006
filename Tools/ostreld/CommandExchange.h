// One request of the wire protocol, from its head to its reply, apart from the HTTP library that carries it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Containers/PlistValue.h"
#include "ostreld/AuditLine.h"
#include "ostreld/Authenticator.h"
#include "ostreld/Authorization.h"
#include "ostreld/RequestSyntax.h"

namespace ostrel {

/// Where a connection comes from.
struct Peer {
  std::string from;  ///< numeric address and port, for the audit line
  std::string key;   ///< what limits are kept for
};

/// Who sent a command.
struct CommandOrigin {
  std::string user;
  std::string from;  ///< peer address and port
};

/// Runs a command and answers its response dictionary (null is answered as an error document). Called on any thread,
/// several at once.
using CommandRunner =
    std::function<PlistValue(const PlistValue& request, const std::string& module, const CommandOrigin& origin)>;

/// What every exchange of a server shares; the same while the server runs.
struct ExchangeRules {
  Authenticator& authenticator;  ///< borrowed, like the next
  Authorization& authorization;
  CommandRunner run;
  std::size_t maximumHead = 0;  ///< bytes
  std::size_t maximumBody = 0;  ///< bytes
};

/// The parts of a request's head that matter here; borrowed for the call that takes them.
struct RequestHead {
  std::string_view method;
  std::string_view path;  ///< as it was sent, without the query
  std::size_t bytes = 0;  ///< of the whole head
  RequestFault headers = RequestFault::none;
  std::optional<std::uint64_t> contentLength;
  bool isChunked = false;              ///< the body tells its own end
  std::string_view sessionIdentifier;  ///< "" when the header is absent; so below
  std::string_view authorization;
};

struct Reply {
  int status = 200;
  std::string contentType = "text/xml; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

/// Threads: one at a time. Every exchange ends with one audit line, by `finish` or by `abandon`.
class CommandExchange {
 public:
  /// Judges the head. `rules` is borrowed and must outlive the exchange.
  CommandExchange(const ExchangeRules& rules, Peer peer, const RequestHead& head);

  /// Whether `signIn` has to be called before the body is taken.
  bool needsSignIn() const { return credentials_.has_value(); }
  /// Has the password checked that the head holds. Blocks, for seconds when it is wrong.
  void signIn();
  /// Whether the reply is a refusal already, whatever the body holds.
  bool isRefused() const { return refusal_.has_value(); }
  /// Takes the next bytes of the body. Those of a refused request, and those beyond the limit, are not kept.
  void receive(std::string_view bytes);
  /// The request is whole: runs the command, or not, and answers. Call it once.
  Reply finish();
  bool isFinished() const { return finished_; }
  /// The request will never be whole.
  void abandon(const std::string& reason);

 private:
  void judge(const RequestHead& head);
  void identify(const RequestHead& head);
  void admit();
  void refuse(int status, const char* reason);
  void decodeBody();
  Reply answer();
  bool isStillKnown(const Permissions& permissions);
  bool mayRun(const PlistValue& request);
  PlistValue runCommand(const PlistValue& request);
  PlistValue signOut();
  Reply documentOf(const PlistValue& response);
  void audit();

  const ExchangeRules& rules_;
  AuditRecord record_;
  const std::chrono::nanoseconds begun_;
  const std::string peer_;
  std::optional<std::uint64_t> contentLength_;
  bool isChunked_ = false;
  std::optional<Reply> refusal_;
  std::optional<BasicCredentials> credentials_;  ///< as long as they have to be checked
  Caller caller_;
  std::string body_;
  bool isEmpty_ = false;
  bool finished_ = false;
};

}  // namespace ostrel
