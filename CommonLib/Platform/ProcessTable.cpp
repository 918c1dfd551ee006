#include "Platform/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>

#include "Containers/Format.h"
#include "Containers/LeadingInteger.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/Internal/ProcessText.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

// What the kernel cuts a program's short name to.
constexpr std::size_t longestShortName = 15;
// More than the files of one process that are read here ever hold up to the last field that is wanted.
constexpr std::size_t fileCapacity = 2048;
// Three words of a command line, two of them as long as a path may be.
constexpr std::size_t commandLineCapacity = 8448;

/// Reads small files of the processes that a listing of /proc names, with two buffers for all of them: a table of
/// thousands of processes is read often.
class ProcessWalk {
 public:
  ProcessWalk() : folder_(openFile("/proc", O_RDONLY | O_DIRECTORY)) {}

  /// Calls `visit(pid, name of its folder)` until it answers false. False with errno when the listing fails.
  template <class Visit>
  bool forEach(Visit visit) {
    if (!folder_) return false;
    for (;;) {
      const ssize_t size = ::getdents64(folder_.get(), listing_.data(), listing_.size());
      if (size <= 0) return size == 0;
      for (ssize_t at = 0; at < size;) {
        const auto* entry = reinterpret_cast<const dirent64*>(listing_.data() + at);
        at += entry->d_reclen;
        if (entry->d_name[0] >= '1' && entry->d_name[0] <= '9' && !visit(entry->d_name)) return true;
      }
    }
  }

  /// A file of a process; empty, with errno, when it cannot be had. Valid until the next call.
  std::string_view read(const char* process, std::string_view file) {
    std::array<char, 32> path;
    const std::size_t length = std::strlen(process);
    if (length + 1 + file.size() + 1 > path.size()) return {};
    char* end = std::copy_n(process, length, path.data());
    *end++ = '/';
    *std::copy(file.begin(), file.end(), end) = '\0';
    const FileDescriptor opened(::openat(folder_.get(), path.data(), O_RDONLY | O_CLOEXEC));
    if (!opened) return {};
    const ssize_t size = readSome(opened.get(), content_.data(), content_.size());
    return {content_.data(), size < 0 ? 0 : static_cast<std::size_t>(size)};
  }

 private:
  FileDescriptor folder_;
  alignas(dirent64) std::array<char, 32768> listing_;
  std::array<char, fileCapacity> content_;
};

/// Whether a file could not be had because this process is short of something, not because the other one is gone or
/// hidden.
bool isShortage(int reason) { return reason == EMFILE || reason == ENFILE || reason == ENOMEM; }

/// Whether one of the longer names that a process goes by is `name`.
bool hasLongName(pid_t pid, std::string_view name) try {
  constexpr int wordsLookedAt = 3;  // an interpreter, one option for it, and the script
  const auto program = readLink(format("/proc/%d/exe", pid));
  if (program && detail::programName(*program) == name) return true;
  const FileDescriptor file = openFile(format("/proc/%d/cmdline", pid), O_RDONLY);
  std::array<char, commandLineCapacity> buffer;
  const ssize_t size = file ? readSome(file.get(), buffer.data(), buffer.size()) : -1;
  if (size <= 0) return false;
  std::string_view words(buffer.data(), static_cast<std::size_t>(size));
  for (int i = 0; i < wordsLookedAt; ++i) {
    const std::string_view word = words.substr(0, words.find('\0'));
    if (detail::programName(word) == name) return true;
    words.remove_prefix(std::min(word.size() + 1, words.size()));
  }
  return false;
} catch (const std::bad_alloc&) {
  return false;
}

bool matches(std::string_view shortName, std::string_view name, pid_t pid) {
  if (name.empty()) return false;
  if (shortName == name) return true;
  return name.size() > longestShortName && shortName.size() == longestShortName && name.starts_with(shortName) &&
         hasLongName(pid, name);
}

class HostProcessTable final : public ProcessTable {
 public:
  std::optional<std::vector<ProcessEntry>> snapshot() override try {
    constexpr std::size_t usualCount = 512;
    std::vector<ProcessEntry> entries;
    entries.reserve(usualCount);
    ProcessWalk walk;
    int shortage = 0;
    const bool listed = walk.forEach([&](const char* process) {
      const std::string_view text = walk.read(process, "stat");
      if (text.empty() && isShortage(errno)) shortage = errno;
      if (const auto entry = detail::parseProcessStat(text)) entries.push_back(*entry);
      return shortage == 0;
    });
    if (shortage != 0) errno = shortage;
    if (!listed || shortage != 0) return std::nullopt;
    return entries;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return std::nullopt;
  }

  std::optional<ProcessEntry> find(pid_t pid) override try {
    if (pid < 1) return std::nullopt;
    // /proc answers for threads, too, which its listing does not name.
    const auto status = readWholeFile(format("/proc/%d/status", pid));
    if (!status || detail::parseThreadGroup(*status) != pid) return std::nullopt;
    const auto text = readWholeFile(format("/proc/%d/stat", pid));
    return text ? detail::parseProcessStat(*text) : std::nullopt;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }

  pid_t firstNamed(std::string_view name) override {
    ProcessWalk walk;
    pid_t found = -1;
    walk.forEach([&](const char* process) {
      std::string_view text = walk.read(process, "comm");
      if (!text.ends_with('\n')) return true;
      text.remove_suffix(1);
      const pid_t pid = leadingInt(process);
      if (matches(text, name, pid)) found = pid;
      return found < 0;
    });
    return found;
  }

  bool isNamed(const ProcessEntry& process, std::string_view name) override {
    return matches(process.name(), name, process.pid);
  }
};

}  // namespace

std::optional<ProcessEntry> ProcessTable::find(pid_t pid) {
  const auto entries = snapshot();
  if (!entries) return std::nullopt;
  const auto found = std::ranges::find(*entries, pid, &ProcessEntry::pid);
  return found == entries->end() ? std::nullopt : std::optional(*found);
}

pid_t ProcessTable::firstNamed(std::string_view name) {
  const auto entries = snapshot();
  if (!entries) return -1;
  const auto found = std::ranges::find_if(*entries, [&](const ProcessEntry& entry) { return isNamed(entry, name); });
  return found == entries->end() ? -1 : found->pid;
}

bool ProcessTable::isNamed(const ProcessEntry& process, std::string_view name) {
  return !name.empty() && process.name() == name;
}

std::atomic<ProcessTable*>& ProcessTable::slot() {
  static HostProcessTable host;
  static std::atomic<ProcessTable*> slot{&host};
  return slot;
}

}  // namespace ostrel
