#include "Network/PortmapList.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

#include "Containers/PropertyList.h"
#include "Network/Internal/PortmapEntry.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace {

constexpr const char* mappingsKey = "portMappings";
constexpr std::size_t largestFile = std::size_t{16} << 20U;

constexpr std::chrono::seconds patience{10};
constexpr std::chrono::milliseconds pause{5};

// The lock is a file of its own, since every write gives the list itself a new inode, and nobody else may open it: who
// can open a file can keep it locked.
int takeLock(const std::string& path, FileDescriptor& lock) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !makeDirectories(path.substr(0, slash))) return errno;
  lock = openFile(path + ".lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
  if (!lock) return errno;
  Clock& clock = Clock::current();
  const auto deadline = clock.monotonic() + patience;
  while (!tryLockFile(lock.get())) {
    if (errno != EWOULDBLOCK || clock.monotonic() >= deadline) return errno;
    clock.sleepFor(pause);
  }
  return 0;
}

// The bytes of the file; absent in `bytes` when there is none yet.
int readBytes(const std::string& path, std::optional<std::string>& bytes) {
  const FileDescriptor file = openRegularFile(path);
  if (!file) return errno == ENOENT ? 0 : errno;
  bytes = readToEnd(file.get(), largestFile);
  return bytes ? 0 : errno;
}

}  // namespace

class KpPortmapList {
 public:
  explicit KpPortmapList(std::string path) : path_(std::move(path)) {}

  int lock() {
    const int status = takeLock(path_, lock_);
    if (status != 0) lock_.reset();
    return status;
  }

  int load() {
    if (const int status = readBytes(path_, bytes_); status != 0) return status;
    root_ = bytes_ ? readPropertyList(*bytes_, PlistForm::mutableContainers) : PlistValue::mutableDictionary();
    const PlistValue mappings = root_.get(mappingsKey);
    if (!root_.isDictionary() || !(mappings.isNull() || mappings.isArray())) return EBADMSG;
    for (const PlistValue& entry : mappings.elements()) checked_.push_back(detail::mappingOf(entry));
    return 0;
  }

  int add(const PortMapping& added) {
    for (const auto& present : checked_) {
      if (const int status = present ? detail::conflictOf(*present, added) : 0; status != 0) return status;
    }
    if (!root_.contains(mappingsKey)) root_.set(mappingsKey, PlistValue::mutableArray());
    root_.get(mappingsKey).append(entryOf(added));
    checked_.emplace_back(added);
    isDirty_ = true;
    return 0;
  }

  int remove(const PortMapping& removed) {
    PlistValue mappings = root_.get(mappingsKey);
    bool found = false;
    for (std::size_t at = checked_.size(); at-- > 0;) {
      if (!checked_[at] || !detail::isSameTarget(*checked_[at], removed)) continue;
      mappings.removeAt(at);
      checked_.erase(checked_.begin() + static_cast<std::ptrdiff_t>(at));
      found = isDirty_ = true;
    }
    return found ? 0 : ENOENT;
  }

  bool isDirty() const { return isDirty_; }

  int save() {
    if (!isDirty_) return 0;
    if (!lock_) return EROFS;
    const bool isBinary = bytes_ && bytes_->starts_with("bplist00");
    auto bytes = isBinary ? writeBinaryPropertyList(root_) : writeXmlPropertyList(root_);
    if (!bytes) return EBADMSG;
    if (bytes->size() > largestFile) return EFBIG;
    std::optional<std::string> present;
    if (const int status = readBytes(path_, present); status != 0) return status;
    if (present != bytes_) return ESTALE;
    if (!writeFileAtomically(path_, *bytes)) return errno;
    bytes_ = std::move(bytes);
    isDirty_ = false;
    return 0;
  }

  std::vector<PortMapping> mappings(std::size_t& unknown) const {
    std::vector<PortMapping> known;
    for (const auto& mapping : checked_) {
      if (mapping) known.push_back(*mapping);
    }
    unknown = checked_.size() - known.size();
    return known;
  }

 private:
  std::string path_;
  FileDescriptor lock_;               // none: for reading only
  std::optional<std::string> bytes_;  // of the file as it was read or written last
  PlistValue root_;
  std::vector<std::optional<PortMapping>> checked_;  // for each element of the list; none: it is no mapping
  bool isDirty_ = false;
};

namespace {

int open(std::string path, bool forChanges, KpPortmapListRef* list) {
  if (list == nullptr) return EINVAL;
  *list = nullptr;
  auto opened = std::make_unique<KpPortmapList>(std::move(path));
  if (const int status = forChanges ? opened->lock() : 0; status != 0) return status;
  if (const int status = opened->load(); status != 0) return status;
  *list = opened.release();
  return 0;
}

}  // namespace

extern "C" {

int KpPortmapListRefCreateFromFile(const char* path, KpPortmapListRef* list) {
  if (path != nullptr) return open(path, true, list);
  if (list != nullptr) *list = nullptr;
  return EINVAL;
}

int KpAddPortToList(KpPortmapListRef list, std::int32_t internalPort, std::int32_t externalPort,
                    const PlistValue& protocol, const PlistValue& internalAddress, const PlistValue& externalAddress,
                    const PlistValue& description) {
  if (list == nullptr) return EINVAL;
  PortMapping mapping;
  const int status = detail::checkMapping(internalPort, externalPort, protocol, internalAddress, externalAddress,
                                          description, mapping);
  return status == 0 ? list->add(mapping) : status;
}

int KpRemovePortFromList(KpPortmapListRef list, std::int32_t internalPort, std::int32_t externalPort,
                         const PlistValue& protocol, const PlistValue& internalAddress) {
  if (list == nullptr) return EINVAL;
  PortMapping mapping;
  const int status =
      detail::checkMapping(internalPort, externalPort, protocol, internalAddress, nullptr, nullptr, mapping);
  return status == 0 ? list->remove(mapping) : status;
}

bool KpPortmapListIsDirty(KpPortmapListRef list) { return list != nullptr && list->isDirty(); }

int KpUpdatePortmapListFile(KpPortmapListRef list) { return list == nullptr ? EINVAL : list->save(); }

void KpReleasePortmapListRef(KpPortmapListRef list) { delete list; }

}  // extern "C"

std::string portmapListPath() { return hostPath("/private/etc/nat/autoportmap.plist"); }

int openPortmapListForReading(const std::string& path, KpPortmapListRef* list) { return open(path, false, list); }

std::vector<PortMapping> portMappingsOf(KpPortmapListRef list, std::size_t* unknown) {
  std::size_t count = 0;
  std::vector<PortMapping> mappings;
  if (list != nullptr) mappings = list->mappings(count);
  if (unknown != nullptr) *unknown = count;
  return mappings;
}

}  // namespace ostrel
