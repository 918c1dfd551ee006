// Where a command goes, and with which credentials.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ClientSession/OstrelDaemonSession.h"
#include "ostrelctl/SavedSession.h"
#include "ostrelctl/SharedOptions.h"

namespace ostrel {

/// What a command presents.
enum class Credentials {
  none,
  password,
  sessionFile,  ///< --session
  saved,        ///< what "ostrelctl login" kept
  local,        ///< what the daemon left for its own user
};

struct DaemonConnection {
  std::shared_ptr<OstrelDaemonSession> session;
  Credentials credentials = Credentials::none;
  SavedSession saved;  ///< where a sign-in at this daemon is kept
};

/// A session for the options' daemon, with the credentials that fit. Absent, with the reason in `fault`, when
/// a file cannot be read or credentials would go over the network in the clear. May ask for a password on the terminal.
std::optional<DaemonConnection> connectionFor(const SharedOptions& options, std::string& fault);

/// The name of the user that this program runs as; "" when there is none.
std::string ownUserName();

}  // namespace ostrel
