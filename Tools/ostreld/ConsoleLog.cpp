#include "ostreld/ConsoleLog.h"

#include <syslog.h>
#include <unistd.h>

#include <string>

#include "Containers/Format.h"
#include "Platform/FileDescriptor.h"

namespace ostrel {
namespace {

constexpr int leastPriorityShown = LOG_INFO;

void show(int priority, std::string_view line) {
  if (LOG_PRI(priority) > leastPriorityShown) return;
  std::string shown;
  for (const char c : line) {
    // Nothing that a stranger wrote may steer the terminal or begin a line of its own.
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      shown += format("\\x%02X", byte);
    } else {
      shown += c;
    }
  }
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
