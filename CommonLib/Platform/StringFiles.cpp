#include "Platform/StringFiles.h"

#include <fcntl.h>

#include <cerrno>

#include "Containers/Utf8.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr mode_t newFileMode = 0644;

struct Owner {
  uid_t user;
  gid_t group;
};

bool ownerNotSet(const std::string& path) {
  logNotice("[%d] Error: Couldn't set the owner and group of file %@", processId(), path);
  return false;
}

bool writeInPlace(std::string_view text, const std::string& path, Owner owner) {
  const FileDescriptor file = openFile(path, O_WRONLY | O_CREAT | O_TRUNC, newFileMode);
  if (!file || !writeFully(file.get(), text)) return false;
  const auto made = descriptorStatus(file.get());
  // Who may write a file may not always set its owner: one that is right already is not asked for.
  if (made && made->user == owner.user) owner.user = static_cast<uid_t>(-1);
  if (made && made->group == owner.group) owner.group = static_cast<gid_t>(-1);
  return changeOwner(file.get(), owner.user, owner.group) || ownerNotSet(path);
}

/// The owner is set before the file gets its name, so that no path is followed twice.
bool writeNew(std::string_view text, const std::string& path, Owner owner) {
  AtomicWriteOptions options{.mode = newFileMode, .user = owner.user, .group = owner.group};
  if (writeFileAtomically(path, text, options)) return true;
  options.user = static_cast<uid_t>(-1);
  options.group = static_cast<gid_t>(-1);
  return writeFileAtomically(path, text, options) && ownerNotSet(path);
}

}  // namespace

std::optional<std::string> UTF8StringWithContentsOfFile(const std::string& path) {
  auto bytes = readWholeFile(path);
  if (bytes && !isValidUtf8(*bytes)) bytes.reset();
  return bytes;
}

bool writeUTF8StringToFile(std::string_view text, const std::string& path, bool atomically, uid_t defaultUserID,
                           gid_t defaultGroupID) {
  if (!isValidUtf8(text)) return false;
  const auto existing = fileStatus(path);
  const Owner owner = existing ? Owner{existing->user, existing->group} : Owner{defaultUserID, defaultGroupID};
  if (!atomically) return writeInPlace(text, path, owner);
  if (!existing) return writeNew(text, path, owner);
  if (writeFileAtomically(path, text)) return true;
  return errno == EPERM && ownerNotSet(path);
}

}  // namespace ostrel
