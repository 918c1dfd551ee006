#include "Platform/ModuleBundle.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <system_error>
#include <utility>

#include "Containers/Format.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Internal/PathParts.h"
#include "Platform/Internal/SystemCalls.h"
#include "Platform/Mutex.h"

namespace ostrel {
namespace {

constexpr mode_t writableByOthers = 0022;

std::string errorText(int number) { return std::generic_category().message(number); }

// Finds the shared object of a bundle, checking each step on the descriptor that the next step uses.
class BundleFinder {
 public:
  explicit BundleFinder(std::string path) : path_(std::move(path)) {
    while (path_.size() > 1 && path_.ends_with('/')) path_.pop_back();
  }

  // The open shared object, or none with the reason.
  FileDescriptor find() {
    if (!detail::isUsablePath(path_)) return refuse("the path is empty or holds a NUL");
    const auto [folderPath, name] = detail::splitPath(path_);
    const FileDescriptor folder = openFile(folderPath, O_RDONLY | O_DIRECTORY);
    if (!folder) return refuse(folderPath + ": " + errorText(errno));
    if (!isTrusted(folder.get(), folderPath)) return {};
    FileDescriptor bundle = openIn(folder.get(), name, path_);
    if (!bundle || !status_.isDirectory()) return bundle;
    const std::string inner = name.substr(0, name.rfind('.')) + ".so";
    FileDescriptor object = openIn(bundle.get(), inner, path_ + "/" + inner);
    if (object && status_.isDirectory()) return refuse(path_ + "/" + inner + ": is no regular file");
    return object;
  }

  const std::string& reason() const { return reason_; }
  // Of what `find` gave.
  const FileStatus& status() const { return status_; }

 private:
  FileDescriptor refuse(std::string reason) {
    reason_ = std::move(reason);
    return {};
  }

  bool isTrusted(int descriptor, const std::string& path) {
    const auto status = descriptorStatus(descriptor);
    if (!status)
      refuse(path + ": " + errorText(errno));
    else if (status->user != 0 && status->user != ::geteuid())
      refuse(format("%s: belongs to user %u, neither root nor this process's", path, status->user));
    else if ((status->mode & writableByOthers) != 0)
      refuse(format("%s: is writable by its group or by others (mode %04o)", path, status->mode & 07777U));
    else if (!status->isDirectory() && !status->isRegularFile())
      refuse(path + ": is no regular file");
    else {
      status_ = *status;
      return true;
    }
    return false;
  }

  // Non-blocking, so that a named pipe in the way cannot hold the caller up.
  FileDescriptor openIn(int folder, const std::string& name, const std::string& path) {
    FileDescriptor file(detail::retried(
        [&] { return ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
    if (!file) return refuse(path + ": " + (errno == ELOOP ? "is a symbolic link" : errorText(errno)));
    if (!isTrusted(file.get(), path)) return {};
    return file;
  }

  std::string path_;
  std::string reason_;
  FileStatus status_;
};

std::string linkerError() {
  const char* text = dlerror();
  return text == nullptr ? "unknown error" : text;
}

// The shared objects that this process has loaded. Each file is loaded once and keeps one descriptor: the dynamic
// linker knows an object by the name it was loaded under, so that descriptor's number must never come to stand for
// another file, or the next load would be answered with this object.
class LoadedObjects {
 public:
  // The linker's handle, or null (see dlerror(3)).
  void* open(FileDescriptor object, const FileStatus& status) {
    const File file{status.device, status.inode};
    if (void* const loaded = find(file)) return loaded;
    // Without the lock: the object's initialisers may load another one.
    void* const handle = dlopen(format("/proc/self/fd/%d", object.get()).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return nullptr;
    object.release();
    const MutexLock lock(mutex_);
    handles_.emplace(file, handle);
    return handle;
  }

 private:
  using File = std::pair<std::uint64_t, std::uint64_t>;  // device and inode, which the open descriptor keeps taken

  void* find(const File& file) {
    const MutexLock lock(mutex_);
    const auto found = handles_.find(file);
    return found == handles_.end() ? nullptr : found->second;
  }

  Mutex mutex_;
  std::map<File, void*> handles_ OSTREL_GUARDED_BY(mutex_);
};

class HostModuleLoader final : public ModuleLoader {
 public:
  std::shared_ptr<ModuleBundle> load(const std::string& path, std::string* reason) override {
    std::string ignored;
    std::string& why = reason == nullptr ? ignored : *reason;
    BundleFinder finder(path);
    FileDescriptor object = finder.find();
    if (!object) {
      why = finder.reason();
      return nullptr;
    }
    void* const handle = loaded_.open(std::move(object), finder.status());
    if (handle == nullptr) {
      why = path + ": " + linkerError();
      return nullptr;
    }
    const auto* interface = static_cast<const ModuleInterface*>(dlsym(handle, moduleInterfaceSymbol));
    if (interface == nullptr) {
      why = path + ": has no factory (" + moduleInterfaceSymbol + ")";
      return nullptr;
    }
    if (interface->version != moduleInterfaceVersion) {
      why = format("%s: was built for module interface %u, not %u", path, interface->version, moduleInterfaceVersion);
      return nullptr;
    }
    if (interface->create == nullptr) {
      why = path + ": its factory is null";
      return nullptr;
    }
    return std::make_shared<ModuleBundle>(path, interface);
  }

 private:
  LoadedObjects loaded_;
};

}  // namespace

std::atomic<ModuleLoader*>& ModuleLoader::slot() {
  static std::atomic<ModuleLoader*> slot{new HostModuleLoader};  // kept: other threads may load while the process exits
  return slot;
}

}  // namespace ostrel
