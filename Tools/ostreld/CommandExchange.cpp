#include "ostreld/CommandExchange.h"

#include <exception>
#include <utility>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Containers/XmlText.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/Envelope.h"
#include "Shared/DaemonModule.h"
#include "ostreld/AsciiXml.h"
#include "ostreld/DaemonCommands.h"

namespace ostrel {
namespace {

constexpr std::string_view sessionHeader = "OstrelSessionID";
constexpr std::size_t mostRefusedLines = 64;

const char* phraseOf(int status) {
  switch (status) {
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 411:
      return "Length Required";
    case 413:
      return "Content Too Large";
    case 429:
      return "Too Many Requests";
    case 503:
      return "Service Unavailable";
    default:
      return "Request Header Fields Too Large";
  }
}

const char* reasonOf(RequestFault fault) {
  switch (fault) {
    case RequestFault::badEscape:
      return "bad percent-escape";
    case RequestFault::wrongPath:
      return "wrong path";
    case RequestFault::repeatedInput:
      return "repeated input";
    case RequestFault::badHeader:
      return "bad header";
    default:
      return "no input";
  }
}

}  // namespace

CommandExchange::CommandExchange(const ExchangeRules& rules, Peer peer, const RequestHead& head)
    : rules_(rules),
      begun_(Clock::current().monotonic()),
      peer_(std::move(peer.key)),
      contentLength_(head.contentLength),
      isChunked_(head.isChunked) {
  record_.from = std::move(peer.from);
  judge(head);
}

void CommandExchange::judge(const RequestHead& head) {
  const CommandPath path = readCommandPath(head.path);
  record_.module = path.module;
  if (head.bytes > rules_.maximumHead) return refuse(431, "head too large");
  if (head.headers != RequestFault::none) return refuse(400, reasonOf(head.headers));
  if (head.method != "POST") return refuse(405, "wrong method");
  if (path.fault == RequestFault::badEscape) return refuse(400, reasonOf(path.fault));
  if (path.fault != RequestFault::none) return refuse(404, reasonOf(path.fault));
  identify(head);
  if (!isRefused() && !needsSignIn()) admit();
}

/// A session makes the credentials superfluous that clients send with every request beside it: checking them is slow.
void CommandExchange::identify(const RequestHead& head) {
  auto caller = rules_.authenticator.callerWith(head.sessionIdentifier);
  auto credentials = readBasicCredentials(head.authorization);
  const bool isCovered = caller && (!credentials || rules_.authenticator.coversCredentials(*caller, *credentials));
  if (isCovered) {
    caller_ = std::move(*caller);
    record_.who = caller_.user;
  } else if (credentials) {
    record_.who = credentials->user;
    credentials_ = std::move(credentials);
  } else {
    refuse(401, "not authenticated");
  }
}

void CommandExchange::signIn() {
  const BasicCredentials credentials = std::move(*credentials_);
  credentials_.reset();
  refuse(503, "the sign-in failed");  // and so it stays, should anything throw
  switch (rules_.authenticator.signIn(credentials, peer_, record_.from, caller_)) {
    case Authenticator::SignIn::accepted:
      refusal_.reset();
      record_.who = caller_.user;
      admit();
      break;
    case Authenticator::SignIn::refused:
      refuse(401, "wrong name or password");
      break;
    case Authenticator::SignIn::tooManyFailures:
      refuse(429, "too many failed sign-ins from this peer");
      refusal_->headers.emplace_back("Retry-After", format("%d", rules_.authenticator.waitOf(peer_).count()));
      break;
    case Authenticator::SignIn::tooBusy:
      refuse(503, "too many sign-ins at once");
      break;
  }
}

/// The caller is known: whether its body may come.
void CommandExchange::admit() {
  // RFC 1945, section 8.3. Taken for an empty request, it would succeed without its command having run.
  if (!contentLength_ && !isChunked_) return refuse(411, "no length");
  if (contentLength_ && *contentLength_ > rules_.maximumBody) return refuse(413, "body too large");
  if (contentLength_) body_.reserve(static_cast<std::size_t>(*contentLength_));
}

void CommandExchange::refuse(int status, const char* reason) {
  Reply reply;
  reply.status = status;
  reply.contentType = "text/plain; charset=utf-8";
  reply.body = format("%d %s: %s\n", status, phraseOf(status), reason);
  if (status == 401) reply.headers.emplace_back("WWW-Authenticate", "Basic realm=\"ostreld\", charset=\"UTF-8\"");
  if (status == 405) reply.headers.emplace_back("Allow", "POST");
  refusal_ = std::move(reply);
  record_.outcome = format("refused %d %s", status, reason);
}

void CommandExchange::receive(std::string_view bytes) {
  if (isRefused()) return;
  if (bytes.size() > rules_.maximumBody - body_.size()) {
    std::string().swap(body_);
    return refuse(413, "body too large");
  }
  body_ += bytes;
}

Reply CommandExchange::finish() {
  finished_ = true;
  if (!isRefused()) decodeBody();
  Reply reply = isRefused() ? std::move(*refusal_) : answer();
  if (!caller_.sessionIdentifier.empty()) reply.headers.emplace_back(sessionHeader, caller_.sessionIdentifier);
  audit();
  return reply;
}

void CommandExchange::abandon(const std::string& reason) {
  finished_ = true;
  record_.outcome = isRefused() ? record_.outcome : "refused " + reason;
  audit();
}

void CommandExchange::decodeBody() {
  isEmpty_ = body_.empty();
  if (isEmpty_) return;
  FormBody form = readFormBody(body_);
  if (form.fault != RequestFault::none) return refuse(400, reasonOf(form.fault));
  body_ = std::move(form.input);
}

Reply CommandExchange::answer() {
  // An empty body has the caller checked and asks nothing of the module.
  if (isEmpty_) {
    const bool isKnown = isStillKnown(rules_.authorization.permissionsOf(caller_));
    return isKnown ? documentOf(PlistValue::dictionaryOf({})) : std::move(*refusal_);
  }
  PlistValue request;
  PlistValue errorDocument;
  if (!convert_request_data_to_dict(PlistData{body_}, request, errorDocument)) {
    record_.outcome = format("error %s", errors::cannotParseXmlRequest);
    Reply reply;
    reply.body = errorDocument.dataBytes();
    return reply;
  }
  record_.command = get_str_value_for_key(request, "command").stringValue();
  if (record_.module == daemonModule::name && record_.command == daemonModule::logout) return documentOf(signOut());
  return mayRun(request) ? documentOf(runCommand(request)) : std::move(*refusal_);
}

/// Who was removed since has nothing but an identifier.
bool CommandExchange::isStillKnown(const Permissions& permissions) {
  if (permissions.isOfKnownUser()) return true;
  refuse(401, "no longer known");
  return false;
}

/// Every command of a batch has to be allowed before any runs. Refuses otherwise, with a line for each that is not, up
/// to a number: the batch may be larger than any that would run.
bool CommandExchange::mayRun(const PlistValue& request) {
  Permissions permissions = rules_.authorization.permissionsOf(caller_);
  if (!isStillKnown(permissions)) return false;
  std::size_t refused = 0;
  for (const CommandName& asked : commandsOf(request, record_.module)) {
    if (permissions.allow(asked.module, asked.command)) continue;
    if (asked.module != record_.module || asked.command != record_.command) {
      writeAudit({record_.who, record_.from, asked.module, asked.command, "refused 403 not allowed", {}});
    }
    refuse(403, "not allowed");
    if (++refused == mostRefusedLines) break;
  }
  return !isRefused();
}

/// Everybody may end the own session.
PlistValue CommandExchange::signOut() {
  const bool ended = rules_.authenticator.signOut(caller_);
  if (ended) caller_.sessionIdentifier.clear();
  return PlistValue::dictionaryOf({{"ended", ended}});
}

/// What the host throws means that it cannot run the module: the caller is told so, and the log why.
PlistValue CommandExchange::runCommand(const PlistValue& request) {
  try {
    return rules_.run(request, record_.module, {caller_.user, record_.from});
  } catch (const std::exception& error) {
    logAt(LogLevel::error, "[%d] ostreld cannot run module %s: %s", processId(), record_.module, error.what());
    return PlistValue::dictionaryOf({{"error", errors::cannotRunBundle}});
  }
}

Reply CommandExchange::documentOf(const PlistValue& response) {
  PlistValue document;
  Reply reply;
  // A control character from a log must not cost the caller the whole reply.
  if (convert_response_dict_to_data(response, document) ||
      (!response.isNull() && convert_response_dict_to_data(withXmlText(response), document))) {
    record_.outcome = outcomeOf(response);
  } else {
    record_.outcome =
        format("error %s", response.isNull() ? errors::unexpectedCommand : errors::cannotCreateXmlResponse);
  }
  // Clients look for the reply's head in its first piece, which has to be whole UTF-8 wherever it ends.
  reply.body = asciiXml(document.dataBytes());
  return reply;
}

void CommandExchange::audit() {
  record_.duration = Clock::current().monotonic() - begun_;
  writeAudit(record_);
}

}  // namespace ostrel
