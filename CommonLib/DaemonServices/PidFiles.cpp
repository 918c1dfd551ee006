#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Containers/LeadingInteger.h"
#include "DaemonServices/ProcessControl.h"
#include "Platform/HostRoot.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace {

constexpr std::string_view pidFolder = "/var/run/";
constexpr std::string_view pidExtension = ".pid";
constexpr std::size_t longestPath = 1023;
constexpr std::size_t largestFile = 16 << 20;

FileDescriptor openPidFile(std::string_view name) {
  if (name.starts_with('/')) return openRegularFile(std::string(name));
  // Turned round, and meant so: a relative name is looked up only when it is too long to fit.
  if (name.size() + pidFolder.size() <= longestPath) return {};
  const std::string path = (std::string(pidFolder) + std::string(name)).substr(0, longestPath);
  FileDescriptor file = openRegularFile(hostPath(path));
  return file ? std::move(file) : openRegularFile(hostPath(path + std::string(pidExtension)));
}

}  // namespace

int ec_pid_from_pid_file(const char* name) try {
  if (name == nullptr || *name == '\0') return -1;
  const FileDescriptor file = openPidFile(name);
  const auto text = file ? readToEnd(file.get(), largestFile) : std::nullopt;
  const auto number = text ? leadingInteger(*text) : std::nullopt;
  return number && std::in_range<int>(*number) ? static_cast<int>(*number) : -1;
} catch (const std::bad_alloc&) {
  return -1;
}

pid_t ec_pid_from_pid_file_or_process_named(const char* pidFile, const char* name) {
  const int pid = ec_pid_from_pid_file(pidFile);
  return pid > 0 ? ec_check_pid_for_process_named(pid, name) : ec_pid_for_process_named(name);
}

}  // namespace ostrel
