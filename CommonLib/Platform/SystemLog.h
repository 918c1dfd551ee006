// The system log: lines and structured records (syslog(3), user facility).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Containers/Export.h"
#include "Containers/Format.h"
#include "Platform/Service.h"

namespace ostrel {

/// Levels of syslog(3), by their numbers.
enum class LogLevel { emergency, alert, critical, error, warning, notice, info, debug };

/// Threads: every operation may be called from any thread. Nothing fails: a line that cannot be delivered is lost.
class OSTREL_EXPORT SystemLog {
 public:
  using Field = std::pair<std::string, std::string>;

  virtual ~SystemLog() = default;
  static SystemLog& current() { return *slot().load(std::memory_order_acquire); }

  /// Writes one line at the priority given as syslog(3) takes it (level and facility bits; no facility: user).
  /// Control characters in it are escaped, so that no argument can forge a second line; one trailing line feed is
  /// dropped.
  virtual void write(int priority, std::string_view line) = 0;
  /// Writes one structured record: its fields in order and a message, as a single log line.
  virtual void writeRecord(int priority, std::span<const Field> fields, std::string_view message) = 0;

 private:
  friend class ScopedOverride<SystemLog>;
  static std::atomic<SystemLog*>& slot();
};

/// The id of this process, for the "[%d] " that log lines begin with.
OSTREL_EXPORT pid_t processId() noexcept;
/// The name of the running program, without its folder.
OSTREL_EXPORT std::string_view processName() noexcept;

/// Formats a line (see Format.h) and writes it at the given level, user facility.
template <class... Arguments>
void logAt(LogLevel level, FormatString<std::type_identity_t<Arguments>...> text, const Arguments&... arguments) {
  SystemLog::current().write(static_cast<int>(level), format<Arguments...>(text, arguments...));
}

/// The same at notice level, where the library's diagnostics go.
template <class... Arguments>
void logNotice(FormatString<std::type_identity_t<Arguments>...> text, const Arguments&... arguments) {
  logAt<Arguments...>(LogLevel::notice, text, arguments...);
}

}  // namespace ostrel
