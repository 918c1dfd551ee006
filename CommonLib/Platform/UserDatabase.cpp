#include "Platform/UserDatabase.h"

#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <string.h>

#include <algorithm>
#include <cerrno>

#include "Platform/Clock.h"
#include "Platform/Mutex.h"

namespace ostrel {
namespace {

// Some name services answer groups of many thousand members; beyond this they are taken as broken.
constexpr std::size_t largestRecord = 64U << 20U;

// Runs a reentrant lookup with a buffer that grows until the record fits. Absent when there is none, or on failure.
template <class Entry, class Record, class Key>
std::optional<Entry> lookUp(int (*lookup)(Key, Record*, char*, std::size_t, Record**), Key key,
                            Entry (*convert)(const Record&)) {
  std::vector<char> buffer(4096);
  for (;;) {
    Record record{};
    Record* found = nullptr;
    const int error = lookup(key, &record, buffer.data(), buffer.size(), &found);
    if (error == 0) return found == nullptr ? std::nullopt : std::optional<Entry>(convert(*found));
    if (error == EINTR) continue;
    if (error != ERANGE || buffer.size() >= largestRecord) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
}

std::string textOf(const char* text) { return text == nullptr ? std::string() : std::string(text); }

UserEntry userFrom(const passwd& record) {
  return {textOf(record.pw_name),  record.pw_uid,         record.pw_gid,
          textOf(record.pw_gecos), textOf(record.pw_dir), textOf(record.pw_shell)};
}

GroupEntry groupFrom(const group& record) {
  GroupEntry entry{textOf(record.gr_name), record.gr_gid, {}};
  for (char** member = record.gr_mem; member != nullptr && *member != nullptr; ++member)
    entry.members.emplace_back(*member);
  return entry;
}

// Walks over an enumeration of the name service, whose position belongs to the whole process.
template <class Entry, class Record>
std::vector<Entry> enumerate(void (*start)(), int (*next)(Record*, char*, std::size_t, Record**), void (*end)(),
                             Entry (*convert)(const Record&)) {
  static Mutex enumeration;
  const MutexLock lock(enumeration);
  std::vector<Entry> entries;
  std::vector<char> buffer(4096);
  start();
  for (;;) {
    Record record{};
    Record* found = nullptr;
    const int error = next(&record, buffer.data(), buffer.size(), &found);
    if (error == 0 && found != nullptr) {
      entries.push_back(convert(*found));
    } else if (error == ERANGE && buffer.size() < largestRecord) {
      buffer.resize(buffer.size() * 2);
    } else if (error != EINTR) {
      break;
    }
  }
  end();
  return entries;
}

bool hasExpired(const spwd& account) {
  constexpr double secondsOfDay = 86400;
  return account.sp_expire > 0 &&
         Clock::current().now().secondsSince1970 >= static_cast<double>(account.sp_expire) * secondsOfDay;
}

bool isName(const std::string& name) { return !name.empty() && name.find('\0') == std::string::npos; }

class HostUserDatabase final : public UserDatabase {
 public:
  std::optional<UserEntry> userNamed(const std::string& name) override {
    return isName(name) ? lookUp(getpwnam_r, name.c_str(), userFrom) : std::nullopt;
  }
  std::optional<UserEntry> userWithId(uid_t uid) override { return lookUp(getpwuid_r, uid, userFrom); }
  std::optional<GroupEntry> groupNamed(const std::string& name) override {
    return isName(name) ? lookUp(getgrnam_r, name.c_str(), groupFrom) : std::nullopt;
  }
  std::optional<GroupEntry> groupWithId(gid_t gid) override { return lookUp(getgrgid_r, gid, groupFrom); }

  std::vector<gid_t> groupsOfUser(const std::string& name) override {
    constexpr int mostGroups = 1 << 16;  // what the kernel lets a process have (NGROUPS_MAX)
    const auto user = userNamed(name);
    if (!user) return {};
    std::vector<gid_t> groups(64);
    for (;;) {
      int count = static_cast<int>(groups.size());
      if (getgrouplist(name.c_str(), user->gid, groups.data(), &count) >= 0) {
        groups.resize(static_cast<std::size_t>(count));
        return groups;
      }
      if (groups.size() > mostGroups) return {};
      groups.resize(std::max(groups.size() * 2, static_cast<std::size_t>(std::clamp(count, 0, mostGroups + 1))));
    }
  }

  std::vector<UserEntry> allUsers() override { return enumerate(setpwent, getpwent_r, endpwent, userFrom); }
  std::vector<GroupEntry> allGroups() override { return enumerate(setgrent, getgrent_r, endgrent, groupFrom); }

  std::optional<std::string> passwordHashOf(const std::string& name) override {
    constexpr std::size_t room = 4096;
    if (!isName(name)) return std::nullopt;
    std::vector<char> buffer(room);
    spwd record{};
    spwd* found = nullptr;
    std::optional<std::string> hash;
    if (getspnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        !hasExpired(record))
      hash = textOf(record.sp_pwdp);
    explicit_bzero(buffer.data(), buffer.size());
    return hash;
  }
};

}  // namespace

std::atomic<UserDatabase*>& UserDatabase::slot() {
  static HostUserDatabase host;
  static std::atomic<UserDatabase*> slot{&host};
  return slot;
}

}  // namespace ostrel
