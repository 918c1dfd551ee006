#include "ostrelctl/Exchange.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/HostRoot.h"
#include "Shared/DaemonModule.h"
#include "ostrelctl/JsonForm.h"
#include "ostrelctl/Progress.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

/// The whole exchange runs in blocking calls, several attempts of it: only a signal ends it from outside.
void endAfter(double seconds) {
  signal(SIGALRM, [](int) {
    Progress::clearFromSignal();
    static constexpr char reason[] = "ostrelctl: no reply in time (--timeout)\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, reason, sizeof reason - 1);
    _exit(noReply);
  });
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(seconds);
  timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
  if (seconds > 0 && timer.it_value.tv_sec == 0 && timer.it_value.tv_usec == 0) timer.it_value.tv_usec = 1;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

int fail(ExitStatus status, const std::string& reason) {
  std::fprintf(stderr, "ostrelctl: %s\n", reason.c_str());
  return status;
}

std::optional<Exchange> Exchange::open(const SharedOptions& options, int& exitStatus) {
  if (!options.root.empty()) setHostRoot(options.root);
  std::string fault;
  auto connection = connectionFor(options, fault);
  if (connection) return Exchange(options, std::move(*connection));
  exitStatus = fail(wrongUsage, fault);
  return std::nullopt;
}

std::optional<Answer> Exchange::send(const std::string& module, const PlistValue& request, int& exitStatus) {
  const auto refuse = [&](ExitStatus status, const std::string& reason) {
    exitStatus = fail(status, reason);
    return std::nullopt;
  };
  // Sent all the same, it would be an empty request, which asks nothing and succeeds.
  if (!writeXmlPropertyList(request))
    return refuse(wrongUsage, "the command or an argument holds what XML cannot carry");
  connection_.session->setService(module);
  if (!connection_.session->buildURL(request, {})) {
    return refuse(wrongUsage, "the host, port or module cannot be part of a URL");
  }
  std::string fault;
  const PlistValue body = transact(module, request, fault);
  if (body.isNull()) return refuse(noReply, fault);

  Answer answer{readPropertyList(body.dataBytes()), std::string(body.dataBytes())};
  if (!answer.reply.isDictionary()) {
    if (options_.form != OutputForm::raw) {
      return refuse(noReply, "the reply is not a property list with a dictionary (--raw prints it)");
    }
    answer.reply = nullptr;
  }
  return answer;
}

std::optional<Answer> ask(const SharedOptions& options, const std::string& module, const PlistValue& request,
                          int& exitStatus) {
  auto exchange = Exchange::open(options, exitStatus);
  return exchange ? exchange->send(module, request, exitStatus) : std::nullopt;
}

PlistValue Exchange::transact(const std::string& module, const PlistValue& request, std::string& fault) {
  OstrelDaemonSession& session = *connection_.session;
  session.setService(module);
  endAfter(options_.timeout);
  std::optional<Progress> progress(std::in_place, module);
  PlistValue body = session.sendSyncRequest(request, {}, rawPayload);
  progress.reset();
  endAfter(0);
  if (!session.failureReason() && session.status() == 1) return body;
  fault = session.failureReason() ? reasonOf(*session.failureReason()) : "the exchange was not completed";
  return {};
}

std::optional<std::string> Exchange::signIn(int& exitStatus) {
  std::string fault;
  if (transact(daemonModule::name, {}, fault).isNull()) {
    exitStatus = fail(noReply, fault);
    return std::nullopt;
  }
  connection_.credentials = Credentials::saved;
  auto identifier = connection_.session->sessionID();
  if (!identifier) exitStatus = fail(noReply, "the daemon began no session");
  return identifier;
}

Exchange::~Exchange() {
  if (!connection_.session || connection_.credentials != Credentials::password) return;
  std::string unread;
  if (connection_.session->sessionID()) signOut(unread);
}

bool Exchange::signOut(std::string& fault) {
  const PlistValue body = transact(daemonModule::name, daemonModule::request(daemonModule::logout), fault);
  return !body.isNull() || OstrelDaemonSession::didAuthenticationFail(connection_.session->failureReason());
}

/// A failure, and what to do about it.
std::string Exchange::reasonOf(const std::string& failure) const {
  const auto endsWith = [&](const char* text) { return failure.ends_with(text); };
  if (endsWith(": 403")) {
    return failure +
           "\nostrelctl: you are signed in, but may not do this: an administrator can allow it in "
           "/etc/ostreld/authorization.plist, or make you a member of the group admin";
  }
  if (endsWith(format("err=%d (connect)", ECONNREFUSED).c_str())) {
    return failure +
           "\nostrelctl: nothing listens there: start ostreld, or say where it is by --host, --port or --root";
  }
  if (endsWith(": 429")) return failure + "\nostrelctl: too many sign-ins failed from here: wait a minute";
  if (endsWith(": 503")) return failure + "\nostrelctl: too many sign-ins are being checked: try again";
  if (!OstrelDaemonSession::didAuthenticationFail(failure)) return failure;
  switch (connection_.credentials) {
    case Credentials::password:
      return failure + "\nostrelctl: wrong name or password";
    case Credentials::sessionFile:
      return failure + "\nostrelctl: that session is unknown or has ended: sign in with 'ostrelctl login'";
    case Credentials::saved:
      return failure +
             "\nostrelctl: your session has ended: sign in again with 'ostrelctl login', or leave it with "
             "'ostrelctl logout'";
    default:
      return failure + "\nostrelctl: sign in with 'ostrelctl login'";
  }
}

std::string textInForm(const PlistValue& value, const std::string& bytes, OutputForm form) {
  switch (form) {
    case OutputForm::raw:
      return bytes;
    case OutputForm::json:
      return jsonText(value);
    case OutputForm::xml:
      return writeXmlPropertyList(value).value_or("");
    default:
      return readableText(value);
  }
}

int print(const std::string& text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  return written ? done : fail(noReply, "cannot write to standard output");
}

std::optional<std::string> errorOf(const PlistValue& reply, const std::string& module, const std::string& command) {
  const PlistValue error = reply.get("error");
  if (error.isNull()) return std::nullopt;
  return format("%s answered %s to %s", module, error.description(), command);
}

int printAnswer(const Answer& answer, OutputForm form, const std::string& module, const std::string& command) {
  if (const int status = print(textInForm(answer.reply, answer.bytes, form)); status != done) return status;
  const auto error = errorOf(answer.reply, module, command);
  return error ? fail(replyHoldsError, *error) : done;
}

}  // namespace ostrel
