#include "ostreld/RunningFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/RandomDevice.h"
#include "Platform/SystemLog.h"
#include "Platform/UserDatabase.h"
#include "Shared/DaemonFiles.h"

namespace ostrel {
namespace {

constexpr std::size_t tokenLength = 32;

bool isPlain(char c) { return c > ' ' && c <= '~' && c != '@'; }

constexpr mode_t writableByOthers = 0022;

/// Whoever can write such a folder can put another session, address or context in place of the daemon's.
bool makeFolder(const char* path, mode_t mode, std::string& fault) {
  const std::string folder = hostPath(path);
  const auto status = makeDirectories(folder, mode) ? fileStatus(folder) : std::nullopt;
  if (!status) {
    fault = format("cannot make the folder %s: %s", folder, std::strerror(errno));
  } else if (status->user != 0 && status->user != geteuid()) {
    fault = format("the folder %s belongs to another user (%u): chown it", folder, status->user);
  } else if ((status->mode & writableByOthers) != 0) {
    fault = format("the folder %s may be written by others than its owner: chmod go-w it", folder);
  } else {
    return true;
  }
  return false;
}

bool writeLine(const std::string& file, const std::string& line, mode_t mode, std::string& fault) {
  if (writeFileAtomically(file, line + '\n', {.mode = mode, .keepExisting = false})) return true;
  fault = format("cannot write %s: %s", file, std::strerror(errno));
  return false;
}

}  // namespace

std::optional<std::string> makeSessionIdentifier() {
  const auto user = UserDatabase::current().userWithId(geteuid());
  const auto token = randomLettersAndDigits(tokenLength);
  if (!token) return std::nullopt;
  // A user without a name is told by number, and so is one whose name would end early or not fit a header's word.
  const bool named = user && !user->name.empty() && std::ranges::all_of(user->name, isPlain);
  return (named ? user->name : format("%d", geteuid())) + "@" + *token;
}

std::optional<RunningFiles> RunningFiles::claim(std::string& fault) {
  // Contexts and sessions are the daemon's alone; clients look for its address and certificate.
  if (!makeFolder("/private/var", 0755, fault) || !makeFolder("/private/var/ostreld", 0700, fault) ||
      !makeFolder("/var/ostreld", 0755, fault) || !makeFolder("/var/ostreld/sessions", 0700, fault)) {
    return std::nullopt;
  }
  const std::string file = daemonFiles::processId();
  FileDescriptor lock = openFile(file, O_RDWR | O_CREAT | O_NOFOLLOW, 0644);
  if (!lock) {
    fault = format("cannot open %s: %s", file, std::strerror(errno));
    return std::nullopt;
  }
  if (!tryLockFile(lock.get())) {
    const auto holder = readToEnd(lock.get(), 32);
    fault = format("another ostreld (process %s) runs below this root: stop it, or choose another with --root",
                   holder && !holder->empty() ? holder->substr(0, holder->find('\n')) : "unknown");
    return std::nullopt;
  }
  removeFile(daemonFiles::endpoint());
  removeFile(daemonFiles::localSession());
  return RunningFiles(std::move(lock));
}

RunningFiles::~RunningFiles() {
  if (!lock_) return;
  removeFile(daemonFiles::endpoint());
  removeFile(daemonFiles::localSession());
  truncateFile(lock_.get(), 0);
}

bool RunningFiles::publish(const std::string& sessionIdentifier, const SocketAddress& address, std::string& fault) {
  if (!truncateFile(lock_.get(), 0) || !writeAt(lock_.get(), format("%d\n", processId()), 0)) {
    fault = format("cannot write %s: %s", daemonFiles::processId(), std::strerror(errno));
    return false;
  }
  return writeLine(daemonFiles::localSession(), sessionIdentifier, 0600, fault) &&
         writeLine(daemonFiles::endpoint(), format("%s %d", address.numericHost(), address.port()), 0644, fault);
}

}  // namespace ostrel
