// What the targets for editors of configuration files share.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "Platform/FileDescriptor.h"
#include "Platform/SystemLog.h"
#include "PlistInvariants.h"

namespace ostrel::fuzz {

/// Keeps the system log free of what a target's inputs make.
class NoLog final : public SystemLog {
 public:
  static void install() {
    static NoLog log;
    static const ScopedOverride<SystemLog> override(log);
  }
  void write(int, std::string_view) override {}
  void writeRecord(int, std::span<const Field>, std::string_view) override {}
};

/// Takes the first line off `rest`.
inline std::string_view takeLine(std::string_view& rest) {
  const std::string_view line = rest.substr(0, rest.find('\n'));
  rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : line.size());
  return line;
}

/// A file in memory, for what reads by path.
class MemoryFile {
 public:
  MemoryFile() : file_(memfd_create("input", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(file_.get())) {}
  void hold(std::string_view bytes) const {
    require(truncateFile(file_.get(), 0) && writeAt(file_.get(), bytes, 0), "memory holds the input");
  }
  const std::string& path() const { return path_; }

 private:
  FileDescriptor file_;
  std::string path_;
};

}  // namespace ostrel::fuzz
