#include "DaemonServices/ProcessControl.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <vector>

#include "DaemonServices/SessionIdentifiers.h"

namespace ostrel {
namespace {

std::string_view textOf(const char* name) { return name == nullptr ? std::string_view() : std::string_view(name); }

/// Whether `name` stands in `command` at its start or directly behind a slash.
bool beginsAName(std::string_view command, std::string_view name) {
  for (std::size_t at = command.find(name); at != std::string_view::npos; at = command.find(name, at + 1)) {
    if (at == 0 || command[at - 1] == '/') return true;
  }
  return false;
}

}  // namespace

int ec_get_process_table(ProcessEntry** table, std::size_t* count) {
  if (table != nullptr) *table = nullptr;
  if (count != nullptr) *count = 0;
  if (table == nullptr || count == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const auto entries = ProcessTable::current().snapshot();
  if (!entries) return -1;
  // One more than needed, so that an empty table is no null pointer.
  auto* copy = static_cast<ProcessEntry*>(std::malloc((entries->size() + 1) * sizeof(ProcessEntry)));
  if (copy == nullptr) return -1;
  std::uninitialized_copy(entries->begin(), entries->end(), copy);
  *table = copy;
  *count = entries->size();
  return 0;
}

int ec_walk_process_table(ProcessCallback callback, void* context) {
  if (callback == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const auto entries = ProcessTable::current().snapshot();
  if (!entries) return -1;
  for (const ProcessEntry& entry : *entries) {
    if (entry.pid == 0 || entry.state == ProcessState::zombie) continue;
    if (callback(&entry, context) != 0) break;
  }
  return 0;
}

const ProcessEntry* ec_process_info_by_pid(pid_t pid) {
  ProcessEntry* table = nullptr;
  std::size_t count = 0;
  if (ec_get_process_table(&table, &count) != 0) return nullptr;
  const ProcessEntry* found = std::find_if(table, table + count, [&](const auto& entry) { return entry.pid == pid; });
  // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the table stays for as long as its entry may be used, meant so
  if (found != table + count) return found;
  std::free(table);
  return nullptr;
}

bool ec_check_process_by_pid(pid_t pid) { return ProcessTable::current().find(pid).has_value(); }

pid_t ec_pid_for_process_named(const char* name) try {
  return textOf(name).empty() ? -1 : ProcessTable::current().firstNamed(name);
} catch (const std::bad_alloc&) {
  return -1;
}

int ec_is_daemon_running(const char* name, int* count) {
  if (count == nullptr) return EINVAL;
  *count = 0;
  const auto entries = ProcessTable::current().snapshot();
  if (!entries) return errno == ENOMEM ? ENOMEM : -1;
  for (const ProcessEntry& entry : *entries) {
    if (ProcessTable::current().isNamed(entry, textOf(name))) ++*count;
  }
  return 0;
}

pid_t ec_check_pid_for_process_named(pid_t pid, const char* name) {
  const auto entry = ProcessTable::current().find(pid);
  const std::string_view wanted = textOf(name);
  if (pid < 1 || !entry || wanted.empty()) return -1;
  return beginsAName(entry->name(), wanted) || ProcessTable::current().isNamed(*entry, wanted) ? pid : -1;
}

bool get_service_state_from_pid(pid_t pid) {
  const auto entry = ProcessTable::current().find(pid);
  return entry && entry->isRunning();
}

bool get_service_state_from_pid_file(const std::string& path) {
  return get_service_state_from_pid(pid_from_file(path));
}

}  // namespace ostrel
