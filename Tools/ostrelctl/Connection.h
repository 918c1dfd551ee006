// Where a command goes, and with which credentials.
#pragma once

#include <memory>
#include <string>

#include "ClientSession/OstrelDaemonSession.h"
#include "ostrelctl/SharedOptions.h"

namespace ostrel {

/// A session for the options' daemon, with the credentials that fit. Null, with the reason in `fault`, when
/// a file cannot be read or credentials would go over the network in the clear. May ask for a password on the terminal.
std::shared_ptr<OstrelDaemonSession> sessionFor(const SharedOptions& options, std::string& fault);

}  // namespace ostrel
