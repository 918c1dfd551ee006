// Sending requests to the daemon and printing its replies, as every subcommand does it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Containers/PlistValue.h"
#include "ostrelctl/Connection.h"
#include "ostrelctl/SharedOptions.h"

namespace ostrel {

enum ExitStatus { done = 0, replyHoldsError = 1, wrongUsage = 2, noReply = 3 };

/// Prints "ostrelctl: REASON" to standard error; answers `status`.
int fail(ExitStatus status, const std::string& reason);

struct Answer {
  PlistValue reply;   ///< a dictionary; null only when it is none and `OutputForm::raw` was asked for
  std::string bytes;  ///< as they came
};

/// The connection to one daemon, with its credentials: for any number of requests, to any of its modules. A session
/// that was begun with a password ends with it.
class Exchange {
 public:
  /// May ask for a password on the terminal. Absent, with the reason printed and `exitStatus` set, when a file cannot
  /// be read or credentials would go over the network in the clear.
  static std::optional<Exchange> open(const SharedOptions& options, int& exitStatus);

  /// Sends `request` to `module` and waits for the reply, at most for the time that the options give. A reply that
  /// holds an error is an answer, too: see `errorOf`. Absent, with the reason printed and `exitStatus` set, when the
  /// request cannot be sent or no whole reply came.
  std::optional<Answer> send(const std::string& module, const PlistValue& request, int& exitStatus);
  /// Sends an empty request, which has the credentials checked. The identifier of the session that this began, which is
  /// the caller's to end now; absent as above.
  std::optional<std::string> signIn(int& exitStatus);

  /// Where "ostrelctl login" keeps the session at this daemon, and whether it is what the requests present.
  const SavedSession& savedSession() const { return connection_.saved; }
  bool holdsSavedSession() const { return connection_.credentials == Credentials::saved; }

  /// Ends the session that the requests present. False with the reason in `fault` when the daemon could not be told; a
  /// session that it does not know has ended already.
  bool signOut(std::string& fault);

  ~Exchange();
  Exchange(Exchange&&) noexcept = default;
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

 private:
  Exchange(SharedOptions options, DaemonConnection connection)
      : options_(std::move(options)), connection_(std::move(connection)) {}
  /// The reply's bytes; null with the reason in `fault`.
  PlistValue transact(const std::string& module, const PlistValue& request, std::string& fault);
  std::string reasonOf(const std::string& failure) const;

  SharedOptions options_;
  DaemonConnection connection_;
};

/// One request over a connection of its own: `Exchange::open`, then `send`.
std::optional<Answer> ask(const SharedOptions& options, const std::string& module, const PlistValue& request,
                          int& exitStatus);

/// A value in the form that was asked for; `bytes` are those of the form raw.
std::string textInForm(const PlistValue& value, const std::string& bytes, OutputForm form);

/// Writes to standard output: `done`, or `noReply` with the reason printed when it cannot be written.
int print(const std::string& text);

/// "MODULE answered CODE to COMMAND"; absent when the reply holds no "error".
std::optional<std::string> errorOf(const PlistValue& reply, const std::string& module, const std::string& command);

/// Prints the answer in the form that was asked for, and its error, if any, to standard error; the exit status.
int printAnswer(const Answer& answer, OutputForm form, const std::string& module, const std::string& command);

}  // namespace ostrel
