// Shows the system log's lines on standard error as well.
#pragma once

#include <span>
#include <string_view>

#include "Platform/SystemLog.h"

namespace ostrel {

/// Passes every line on to the log it was made over and writes it to standard error. Use it with
/// ScopedOverride<SystemLog>.
class ConsoleLog final : public SystemLog {
 public:
  explicit ConsoleLog(SystemLog& log) : log_(log) {}
  void write(int priority, std::string_view line) override;
  void writeRecord(int priority, std::span<const Field> fields, std::string_view message) override;

 private:
  SystemLog& log_;
};

}  // namespace ostrel
