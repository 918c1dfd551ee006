#include "Platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "Containers/Format.h"
#include "Platform/Internal/PathParts.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

constexpr mode_t permissionBits = 07777;

// A new file of a name that nobody can foresee, in an open folder.
class TemporaryFile {
 public:
  TemporaryFile(int folder, const std::string& target) : folder_(folder) {
    for (int i = 0; i < 100; ++i) {
      std::uint64_t random = 0;
      if (detail::retried([&] { return ::getrandom(&random, sizeof random, 0); }) != sizeof random) return;
      // Room for the suffix within the 255 bytes that a name may have.
      name_ = format(".%s.%016llx", target.substr(0, 200), random);
      file_.reset(detail::retried(
          [&] { return ::openat(folder, name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600); }));
      if (file_ || errno != EEXIST) return;
    }
  }
  ~TemporaryFile() {
    if (!file_ || renamed_) return;
    const int kept = errno;
    ::unlinkat(folder_, name_.c_str(), 0);
    errno = kept;
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  explicit operator bool() const { return static_cast<bool>(file_); }
  int descriptor() const { return file_.get(); }
  bool renameTo(const std::string& target) {
    renamed_ = ::renameat(folder_, name_.c_str(), folder_, target.c_str()) == 0;
    return renamed_;
  }

 private:
  int folder_;
  std::string name_;
  FileDescriptor file_;
  bool renamed_ = false;
};

// An extended attribute of an open file, also of one opened for its path alone; "" when it has none.
std::optional<std::string> attributeOf(int file, const char* name) {
  const std::string path = format("/proc/self/fd/%d", file);
  std::string value(64U << 10U, '\0');  // the most that an attribute holds
  const ssize_t size = ::getxattr(path.c_str(), name, value.data(), value.size());
  if (size < 0) return errno == ENODATA || errno == ENOTSUP ? std::optional<std::string>("") : std::nullopt;
  value.resize(static_cast<std::size_t>(size));
  return value;
}

// Gives a file the access list and the security label of another.
bool copyAttributes(int from, int to) {
  for (const char* name : {"system.posix_acl_access", "security.selinux"}) {
    const auto wanted = attributeOf(from, name);
    const auto present = attributeOf(to, name);
    if (!wanted || !present) return false;
    if (wanted->empty() || *wanted == *present) continue;
    if (::fsetxattr(to, name, wanted->data(), wanted->size(), 0) != 0) return false;
  }
  return true;
}

// Owner before mode: changing the owner clears the set-id bits.
bool giveOwnerAndMode(int file, uid_t user, gid_t group, mode_t mode) {
  const bool keepsOwner = user == static_cast<uid_t>(-1) && group == static_cast<gid_t>(-1);
  return (keepsOwner || changeOwner(file, user, group)) && changeMode(file, mode & permissionBits);
}

// The file that stands where a new one is to go.
struct Target {
  FileDescriptor file;  // opened for its path alone; none when nothing is there
  FileStatus status;
};

bool findTarget(int folder, const std::string& name, Target& target) {
  target.file.reset(detail::retried([&] { return ::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
  if (!target.file) return errno == ENOENT;
  const auto status = descriptorStatus(target.file.get());
  if (!status) return false;
  target.status = *status;
  if (status->isRegularFile()) return true;
  if (status->isDirectory())
    errno = EISDIR;
  else
    errno = S_ISLNK(status->mode) ? ELOOP : EINVAL;
  return false;
}

bool takeOver(int file, const Target& target, const AtomicWriteOptions& options) {
  if (!target.file || !options.keepExisting) return giveOwnerAndMode(file, options.user, options.group, options.mode);
  return copyFileAttributes(target.file.get(), file);
}

bool makeDirectory(const std::string& path, mode_t mode) {
  if (::mkdir(path.c_str(), 0700) == 0) {
    // Through a descriptor, so that nothing put in its place meanwhile gets the mode.
    const FileDescriptor made = openFile(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    return made && changeMode(made.get(), mode & permissionBits);
  }
  if (errno != EEXIST) return false;
  if (isDirectory(path)) return true;
  errno = ENOTDIR;
  return false;
}

}  // namespace

std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit) {
  const FileDescriptor file = openFile(path, O_RDONLY);
  if (!file) return std::nullopt;
  return readToEnd(file.get(), limit);
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, const AtomicWriteOptions& options) {
  if (!detail::isUsablePath(path)) return false;
  const auto target = options.followLink ? followLinks(path) : path;
  if (!target) return false;
  const auto [folderPath, name] = detail::splitPath(*target);
  if (name.empty() || name == "." || name == "..") {
    errno = EISDIR;
    return false;
  }
  const FileDescriptor folder = openFile(folderPath, O_RDONLY | O_DIRECTORY);
  if (!folder) return false;

  Target existing;
  if (!findTarget(folder.get(), name, existing)) return false;
  TemporaryFile replacement(folder.get(), name);
  if (!replacement || !writeFully(replacement.descriptor(), bytes)) return false;
  if (!takeOver(replacement.descriptor(), existing, options) || !syncFile(replacement.descriptor())) return false;
  return replacement.renameTo(name) && syncFile(folder.get());
}

bool makeDirectories(const std::string& path, mode_t mode) {
  if (!detail::isUsablePath(path)) return false;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/') continue;
    const std::string above = path.substr(0, slash);
    if (!isDirectory(above) && !makeDirectory(above, mode)) return false;
  }
  return isDirectory(path) || makeDirectory(path, mode);
}

std::optional<std::vector<std::string>> listDirectory(const std::string& path) {
  if (!detail::isUsablePath(path)) return std::nullopt;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), &::closedir);
  if (!folder) return std::nullopt;
  std::vector<std::string> names;
  for (;;) {
    errno = 0;  // tells the end from a failure
    // Safe on any thread: the stream is this call's own.
    const dirent* entry = ::readdir(folder.get());  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) return std::nullopt;
  return names;
}

bool fileExists(const std::string& path) { return fileStatus(path).has_value(); }

bool isDirectory(const std::string& path) {
  const auto status = fileStatus(path);
  return status && status->isDirectory();
}

bool mayRead(const std::string& path) {
  return detail::isUsablePath(path) && ::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

bool mayWrite(const std::string& path) {
  return detail::isUsablePath(path) && ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

std::optional<std::string> readLink(const std::string& path) {
  if (!detail::isUsablePath(path)) return std::nullopt;
  for (std::string target(256, '\0');; target.resize(target.size() * 2)) {
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) return std::nullopt;
    if (static_cast<std::size_t>(length) == target.size()) continue;  // cut off, perhaps
    target.resize(static_cast<std::size_t>(length));
    return target;
  }
}

std::optional<std::string> followLinks(const std::string& path) {
  constexpr int most = 40;  // as many as the kernel follows
  std::string at = path;
  for (int i = 0; i < most; ++i) {
    const auto status = linkStatus(at);
    if (!status) return errno == ENOENT ? std::optional(at) : std::nullopt;
    if (!S_ISLNK(status->mode)) return at;
    const auto target = readLink(at);
    if (!target) return std::nullopt;
    at = target->starts_with('/') ? *target : detail::splitPath(at).folder + "/" + *target;
  }
  errno = ELOOP;
  return std::nullopt;
}

bool copyFileAttributes(int from, int to) {
  const auto wanted = descriptorStatus(from);
  const auto present = descriptorStatus(to);
  if (!wanted || !present) return false;
  // An unprivileged writer may replace its own file: ownership that is right already is not asked for.
  const uid_t user = present->user == wanted->user ? static_cast<uid_t>(-1) : wanted->user;
  const gid_t group = present->group == wanted->group ? static_cast<gid_t>(-1) : wanted->group;
  return giveOwnerAndMode(to, user, group, wanted->mode) && copyAttributes(from, to);
}

bool removeFile(const std::string& path) { return detail::isUsablePath(path) && ::unlink(path.c_str()) == 0; }

bool syncDirectory(const std::string& path) {
  const FileDescriptor folder = openFile(path, O_RDONLY | O_DIRECTORY);
  return folder && syncFile(folder.get());
}

}  // namespace ostrel
