#include "DaemonServices/SessionIdentifiers.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Containers/Format.h"
#include "Containers/LeadingInteger.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"
#include "Platform/Clock.h"
#include "Platform/DirectoryMembership.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/NameResolver.h"
#include "Platform/RandomDevice.h"
#include "Platform/RegularFile.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel {
namespace {

constexpr std::string_view sessionsFolder = "/var/ostreld/sessions/";
constexpr std::string_view proxiedSessionsFolder = "/var/ostreld/proxied_sessions/";
constexpr std::string_view preferencesFile = "/Library/Preferences/com.brantle.ostrel_info.plist";
constexpr std::size_t tokenLength = 32;
// What is read whole is bounded, so that no file, however large or sparse, exhausts the memory.
constexpr std::size_t largestFile = 16 << 20;
constexpr double obsoleteAfterSeconds = 5400;

/// Whether the text may be part of the name of one file in one folder.
bool isNamePart(const PlistValue& text) {
  using namespace std::string_view_literals;
  return text.isString() && text.stringValue().find_first_of("/\0"sv) == std::string_view::npos;
}

/// The name of a session's file, or nothing when the identifier or the extension names none.
std::optional<std::string> sessionFileName(const PlistValue& identifier, const PlistValue& extension) {
  if (!isNamePart(identifier)) return std::nullopt;
  std::string name(identifier.stringValue());
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  if (extension.isNull()) return name;
  if (!isNamePart(extension)) return std::nullopt;
  return name + "." + std::string(extension.stringValue());
}

std::optional<std::string> proxiedSessionPath(const PlistValue& identifier, const PlistValue& extension) {
  const auto name = sessionFileName(identifier, extension);
  if (!name) return std::nullopt;
  return hostPath(proxiedSessionsFolder) + *name;
}

/// When the file system that holds `path` was modified. The attributes of a file system (its size, free space and ids)
/// tell no such date, and it is the file system that is asked here, not the file.
std::optional<PlistDate> modificationDateOfFileSystem(const std::string& /*path*/) { return std::nullopt; }

double ageByFileSystem(const std::string& path) {
  const auto modified = modificationDateOfFileSystem(path);
  return modified ? Clock::current().now().secondsSince1970 - modified->secondsSince1970 : 0;
}

/// The clean-up pass before each save. Meant to be so: without a date the age is 0, and no session is ever deleted.
void deleteObsoleteSessions(const std::string& folder) {
  for (const std::string& name : listDirectory(folder).value_or(std::vector<std::string>())) {
    const std::string path = folder + name;
    if (ageByFileSystem(path) <= obsoleteAfterSeconds) continue;
    const char* outcome = removeFile(path) ? "succeeded" : "failed";
    logNotice("[%d] save_session_id: deleting %s since obsolete (%s)\n", processId(), path, outcome);
  }
}

bool ensureProxiedSessionsFolder(const std::string& folder) {
  if (isDirectory(folder) || makeDirectories(folder, 0700)) return true;
  const int reason = errno;
  logNotice("[%d] error in save_session_id: cannot create %s (errno=%d)\n", processId(), folder, reason);
  return false;
}

/// False with the reason in errno.
bool writeSession(const std::string& path, const PlistValue& contents) {
  if (!contents.isString() || !isValidUtf8(contents.stringValue())) {
    errno = EINVAL;
    return false;
  }
  if (contents.stringValue().size() > largestFile) {
    errno = EFBIG;
    return false;
  }
  AtomicWriteOptions options;
  options.mode = 0600;
  options.keepExisting = false;
  options.followLink = false;
  return writeFileAtomically(path, contents.stringValue(), options);
}

bool logSaveFailure(const std::string& path, int reason) {
  logNotice("[%d] error in save_session_id: can't create %s (errno=%d)\n", processId(), path, reason);
  return false;
}

std::optional<std::string> bytesOfFile(const std::string& path, FinalLink link) {
  const FileDescriptor file = openRegularFile(path, link);
  return file ? readToEnd(file.get(), largestFile) : std::nullopt;
}

/// The text of a regular file, or null.
PlistValue textOfFile(const std::string& path, FinalLink link) {
  const auto bytes = bytesOfFile(path, link);
  return bytes ? PlistValue::stringFromUTF8(*bytes) : PlistValue();
}

}  // namespace

PlistValue generate_unprivileged_session_id(const PlistValue& extension) {
  const auto token = randomLettersAndDigits(tokenLength);
  if (!token) return {};
  const PlistValue identifier(format("%@@%s", "nobody", *token));
  const auto name = sessionFileName(identifier, extension);
  if (!name) return {};
  // The slash is doubled: the folder ends in one already.
  const std::string path = hostPath(sessionsFolder) + "/" + *name;
  const FileDescriptor marker = openFile(path, O_RDONLY | O_CREAT | O_NOFOLLOW, 0600);
  return marker ? identifier : PlistValue();
}

bool save_session_id(const PlistValue& identifier, const PlistValue& contents, const PlistValue& extension) {
  const std::string folder = hostPath(proxiedSessionsFolder);
  if (!ensureProxiedSessionsFolder(folder)) return false;
  deleteObsoleteSessions(folder);
  const auto path = proxiedSessionPath(identifier, extension);
  if (!path) return logSaveFailure(folder + identifier.description(), EINVAL);
  return writeSession(*path, contents) || logSaveFailure(*path, errno);
}

bool save_session_id_multiple(const PlistValue& identifiers, const PlistValue& contents, const PlistValue& extension) {
  bool allSaved = true;
  for (const PlistValue& identifier : identifiers.elements())
    allSaved = save_session_id(identifier, contents, extension) && allSaved;
  return allSaved;
}

bool revoke_session_id(const PlistValue& identifier, const PlistValue& extension) {
  const auto path = proxiedSessionPath(identifier, extension);
  return path && removeFile(*path);
}

PlistValue restore_session_id(const PlistValue& identifier, const PlistValue& extension) {
  const auto path = proxiedSessionPath(identifier, extension);
  return path ? textOfFile(*path, FinalLink::refused) : PlistValue();
}

bool is_same_host(const PlistValue& hostA, const PlistValue& hostB, bool resolve) try {
  if (!hostA.isString() || !hostB.isString()) return false;
  if (hostA == hostB) return true;
  return resolve &&
         NameResolver::current().sameHost(std::string(hostA.stringValue()), std::string(hostB.stringValue()));
} catch (const std::exception&) {
  return false;
}

bool is_same_host_multiple(const PlistValue& hosts, const PlistValue& hostB, bool resolve) {
  return std::ranges::any_of(hosts.elements(),
                             [&](const PlistValue& host) { return is_same_host(host, hostB, resolve); });
}

bool does_user_belong_to_group(const PlistValue& user, const PlistValue& group) try {
  if (!user.isString() || !group.isString()) return false;
  auto memberships = DirectoryMemberships::ofUser(user.stringValue());
  return memberships && memberships->include(group.stringValue());
} catch (const std::exception&) {
  return false;
}

bool check_if_ports_are_restricted(const PlistValue& ports, PlistValue* restrictions) try {
  constexpr std::string_view module = "ostrel_ipfilter";
  if (restrictions != nullptr) *restrictions = PlistValue();
  if (ports.isNull()) return false;
  const auto request = PlistValue::dictionaryOf({{"command", "getPortRestrictionInfo"}, {"ports", ports}});
  const PlistValue response = BundleManager::managerForBundle(module)->doCommand(request, module, PlistValue());
  const PlistValue* allOpen = response.find("allOpen");
  return allOpen == nullptr || !allOpen->boolValue();
} catch (const std::exception&) {
  return true;  // no answer: restricted
}

PlistValue get_service_config() {
  const auto bytes = bytesOfFile(hostPath(preferencesFile), FinalLink::followed);
  return bytes ? readPropertyList(*bytes).get("ServiceConfig") : PlistValue();
}

int pid_from_file(const std::string& path) {
  const PlistValue text = textOfFile(path, FinalLink::followed);
  if (text.isNull()) return -1;
  const auto number = leadingInteger(text.stringValue());
  if (number && std::in_range<int>(*number)) return static_cast<int>(*number);
  logNotice("[%d] error in pid_from_file: file %s doesn't contain a pid\n", processId(), path);
  return 0;
}

}  // namespace ostrel
