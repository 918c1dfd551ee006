// Sends one command to a daemon and prints its reply.
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "ClientSession/OstrelDaemonSession.h"
#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/HostRoot.h"
#include "ostrelctl/Connection.h"
#include "ostrelctl/ControlOptions.h"
#include "ostrelctl/JsonForm.h"
#include "ostrelctl/RequestArguments.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

enum ExitStatus { done = 0, replyHoldsError = 1, wrongUsage = 2, noReply = 3 };

int fail(ExitStatus status, const std::string& reason) {
  std::fprintf(stderr, "ostrelctl: %s\n", reason.c_str());
  return status;
}

/// The whole exchange runs in blocking calls, several attempts of it: only a signal ends it from outside.
void endAfter(double seconds) {
  if (seconds <= 0) return;
  signal(SIGALRM, [](int) {
    static constexpr char reason[] = "ostrelctl: no reply in time (--timeout)\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, reason, sizeof reason - 1);
    _exit(noReply);
  });
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(seconds);
  timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
  if (timer.it_value.tv_sec == 0 && timer.it_value.tv_usec == 0) timer.it_value.tv_usec = 1;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

std::string printed(const PlistValue& reply, std::string_view bytes, OutputForm form) {
  switch (form) {
    case OutputForm::raw:
      return std::string(bytes);
    case OutputForm::json:
      return jsonText(reply);
    case OutputForm::xml:
      return writeXmlPropertyList(reply).value_or("");
    default:
      return readableText(reply);
  }
}

/// Why a whole reply is not what was asked for; absent when it is.
std::optional<std::string> faultOf(const PlistValue& reply, const ControlOptions& options) {
  const PlistValue error = reply.get("error");
  if (error.isNull()) return std::nullopt;
  return format("%s answered %s to %s", options.module, error.description(), options.command);
}

int run(const ControlOptions& options) {
  if (!options.root.empty()) setHostRoot(options.root);
  std::string fault;
  const auto request = requestFromWords(options.command, options.words, fault);
  if (!request) return fail(wrongUsage, fault);
  // Sent all the same, it would be an empty request, which asks nothing and succeeds.
  if (!writeXmlPropertyList(*request))
    return fail(wrongUsage, "the command or an argument holds what XML cannot carry");
  const auto session = sessionFor(options, fault);
  if (!session) return fail(wrongUsage, fault);
  if (!session->buildURL(*request, {})) return fail(wrongUsage, "the host, port or module cannot be part of a URL");

  endAfter(options.timeout);
  const PlistValue body = session->sendSyncRequest(*request, {}, rawPayload);
  endAfter(0);
  if (session->failureReason()) return fail(noReply, *session->failureReason());
  if (session->status() != 1) return fail(noReply, "the exchange was not completed");

  const PlistValue reply = readPropertyList(body.dataBytes());
  if (!reply.isDictionary() && options.form != OutputForm::raw) {
    return fail(noReply, "the reply is not a property list with a dictionary (--raw prints it)");
  }
  const std::string text = printed(reply, body.dataBytes(), options.form);
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    return fail(noReply, "cannot write to standard output");
  }
  const auto error = faultOf(reply, options);
  return error ? fail(replyHoldsError, *error) : done;
}

}  // namespace
}  // namespace ostrel

int main(int argc, char** argv) {
  int exitStatus = 0;
  const auto options = ostrel::readControlOptions(argc, argv, exitStatus);
  return options ? ostrel::run(*options) : exitStatus;
}
