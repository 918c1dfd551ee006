#include "ostreld/ConsoleLog.h"

#include <syslog.h>
#include <unistd.h>

#include <string>

#include "Containers/Format.h"
#include "Containers/Utf8.h"
#include "Platform/FileDescriptor.h"

namespace ostrel {
namespace {

constexpr int leastPriorityShown = LOG_INFO;

void show(int priority, std::string_view line) {
  if (LOG_PRI(priority) > leastPriorityShown) return;
  // Nothing that a stranger wrote may steer the terminal or begin a line of its own.
  std::string shown;
  appendEscapingControls(shown, line, [](char byte) { return format("\\x%02X", static_cast<unsigned char>(byte)); });
  writeFully(STDERR_FILENO, shown + '\n');  // in one call, so that lines of several threads stay whole
}

}  // namespace

void ConsoleLog::write(int priority, std::string_view line) {
  log_.write(priority, line);
  if (line.ends_with('\n')) line.remove_suffix(1);
  show(priority, line);
}

void ConsoleLog::writeRecord(int priority, std::span<const Field> fields, std::string_view message) {
  log_.writeRecord(priority, fields, message);
  std::string line;
  for (const auto& [key, value] : fields) line.append("[").append(key).append(" ").append(value).append("] ");
  show(priority, line.append(message));
}

}  // namespace ostrel
