// A logger that names itself and the level of each message, and remembers the most severe one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Containers/Export.h"
#include "Containers/Format.h"

namespace ostrel {

/// Writes "prefix:level:message" lines to the system log. Levels are those of syslog(3), 0 ("Emergency") to 7
/// ("Debug").
///
/// Threads: messages may be written and the mark be read from any thread. `setPrefix` must not run beside other calls.
/// Nothing fails.
class OSTREL_EXPORT SysLogger {
 public:
  /// The mark of a logger that has seen no message.
  static constexpr std::int64_t nothingSeen = 8;

  /// `initWithPrefix:`.
  explicit SysLogger(std::string prefix) : fPrefix(std::move(prefix)) {}
  /// `loggerWithPrefix:`.
  static std::shared_ptr<SysLogger> loggerWithPrefix(std::string prefix) {
    return std::make_shared<SysLogger>(std::move(prefix));
  }

  const std::string& prefix() const noexcept { return fPrefix; }
  /// `setPrefix:`.
  void setPrefix(std::string prefix) { fPrefix = std::move(prefix); }

  /// The most severe (lowest) level of all messages so far, those included that were not written.
  std::int64_t highWaterMark() const noexcept { return fHighWaterMark; }
  /// `setMinPriorityLevel:`: messages of a higher, less severe level are not written. 7 at first: all are.
  void setMinPriorityLevel(std::int64_t level) noexcept { fMinPriorityLevel = level; }

  /// `messageWithPriority:format:`. The priority is syslog(3)'s: its level decides here, and all of it reaches the log.
  /// The format is as in Format.h.
  template <class... Arguments>
  void messageWithPriority(int priority, FormatString<std::type_identity_t<Arguments>...> text,
                           const Arguments&... arguments) {
    if (admits(priority)) write(priority, format<Arguments...>(text, arguments...));
  }

 private:
  /// Raises the mark, then tells whether the message is written.
  bool admits(int priority) noexcept;
  void write(int priority, std::string_view message) const;

  std::string fPrefix;
  std::atomic<std::int64_t> fHighWaterMark{nothingSeen};
  std::atomic<std::int64_t> fMinPriorityLevel{7};
};

}  // namespace ostrel
