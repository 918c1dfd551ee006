#include "Platform/TrustedPropertyList.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "Containers/PropertyList.h"

namespace ostrel {
namespace {

constexpr std::size_t largestFile = 1U << 20U;

bool isTrusted(const FileStatus& status) {
  return status.isRegularFile() && (status.user == 0 || status.user == geteuid()) && (status.mode & 022U) == 0;
}

}  // namespace

PlistValue readTrustedPropertyList(const std::string& path, std::string& fault) {
  const auto refuse = [&fault](std::string reason) {
    fault = std::move(reason);
    return PlistValue();
  };
  const FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK);
  if (!file && errno == ENOENT) return PlistValue::dictionaryOf({});
  if (!file) return refuse("cannot be opened");
  const auto status = descriptorStatus(file.get());
  if (!status || !isTrusted(*status)) {
    return refuse("is no regular file of root's or the daemon's that only they may write");
  }
  const auto bytes = readToEnd(file.get(), largestFile);
  if (!bytes) return refuse("cannot be read or is too large");
  PlistError error;
  PlistValue value = readPropertyList(*bytes, PlistForm::immutableContainers, &error);
  if (value.isDictionary()) return value;
  return refuse(value.isNull() ? error.message : "holds no dictionary");
}

FileState FileState::of(const std::string& path) {
  FileState state;
  const auto status = fileStatus(path);
  if (!status) return state;
  state.device_ = status->device;
  state.inode_ = status->inode;
  state.size_ = status->size;
  state.changed_ = status->changedNanoseconds;
  return state;
}

}  // namespace ostrel
