#include "ostreld/AuditLine.h"

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/Envelope.h"

namespace ostrel {
namespace {

constexpr std::size_t longestText = 96;

}  // namespace

std::string quotedForLog(std::string_view text) {
  if (text.empty()) return "\"-\"";
  std::string out = "\"";
  for (const char c : text.substr(0, longestText)) {
    const bool plain = c >= ' ' && c <= '~' && c != '"' && c != '\\';
    if (plain) {
      out += c;
    } else {
      out += format("\\x%02X", static_cast<unsigned char>(c));
    }
  }
  if (text.size() > longestText) out += "...";
  return out + '"';
}

std::string outcomeOf(const PlistValue& response) {
  if (response.isNull()) return format("error %s", errors::unexpectedCommand);
  const PlistValue error = get_str_value_for_key(response, "error");
  return error.isNull() ? "ok" : format("error %s", error.stringValue());
}

std::string auditLine(const AuditRecord& record) {
  const double milliseconds = std::chrono::duration<double, std::milli>(record.duration).count();
  return format("audit user=%s from=%s module=%s command=%s outcome=%s ms=%.3f", quotedForLog(record.who),
                quotedForLog(record.from), quotedForLog(record.module), quotedForLog(record.command),
                quotedForLog(record.outcome), milliseconds);
}

void writeAudit(const AuditRecord& record) {
  const LogLevel level = record.outcome.starts_with("refused") ? LogLevel::warning : LogLevel::notice;
  logAt(level, "[%d] %s", processId(), auditLine(record));
}

}  // namespace ostrel
