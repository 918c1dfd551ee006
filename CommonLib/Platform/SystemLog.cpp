#include "Platform/SystemLog.h"

#include <errno.h>  // program_invocation_short_name
#include <syslog.h>
#include <unistd.h>

#include "Containers/Utf8.h"

namespace ostrel {
namespace {

std::string escape(char byte) { return byte == '\n' ? "\\n" : format("\\%03o", static_cast<unsigned char>(byte)); }

void appendEscaped(std::string& out, std::string_view text) { appendEscapingControls(out, text, escape); }

int withFacility(int priority) { return (priority & LOG_FACMASK) == 0 ? priority | LOG_USER : priority; }

class HostSystemLog final : public SystemLog {
 public:
  void write(int priority, std::string_view line) override {
    if (line.ends_with('\n')) line.remove_suffix(1);
    std::string escaped;
    appendEscaped(escaped, line);
    syslog(withFacility(priority), "%s", escaped.c_str());
  }

  void writeRecord(int priority, std::span<const Field> fields, std::string_view message) override {
    std::string line;
    for (const auto& [key, value] : fields) {
      line += '[' + key + ' ';
      appendEscaped(line, value);
      line += "] ";
    }
    appendEscaped(line, message);
    syslog(withFacility(priority), "%s", line.c_str());
  }
};

}  // namespace

std::atomic<SystemLog*>& SystemLog::slot() {
  static std::atomic<SystemLog*> slot{new HostSystemLog};  // kept: other threads may use it while the process exits
  return slot;
}

pid_t processId() noexcept { return getpid(); }

std::string_view processName() noexcept { return program_invocation_short_name; }

}  // namespace ostrel
