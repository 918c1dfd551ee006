// The one line that every command and every refusal leaves in the system log.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel {

/// What happened. Nothing of a request goes in here but its module and its command's name: never an argument.
struct AuditRecord {
  std::string who;      ///< the authenticated user, or who a refused caller claimed to be; empty when there is none
  std::string from;     ///< peer address and port
  std::string module;   ///< as the caller named it; empty when the request did not come so far
  std::string command;  ///< likewise
  std::string outcome;  ///< "ok", "error CODE", "signed in" or "refused REASON"
  std::chrono::nanoseconds duration{};
};

/// "ok", or "error CODE" for a response that holds an error, or for none.
std::string outcomeOf(const PlistValue& response);

/// Text in quotes, bounded in length, with whatever could forge a field or a second line escaped: a byte outside
/// printable ASCII, a quote and a backslash become \xHH. Without text: "-".
std::string quotedForLog(std::string_view text);

/// audit user="admin" from="127.0.0.1:50312" module="ostrel_sample" command="getState" outcome="ok" ms=1.204
///
/// Texts are those of `quotedForLog`.
std::string auditLine(const AuditRecord& record);

/// Writes the line to the system log with the "[pid] " that log lines begin with: at notice level, refusals as
/// warnings.
void writeAudit(const AuditRecord& record);

}  // namespace ostrel
