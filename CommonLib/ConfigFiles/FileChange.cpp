#include "ConfigFiles/FileChange.h"

#include <cerrno>
#include <utility>

#include "ConfigFiles/UnifiedDiff.h"
#include "Platform/RegularFile.h"

namespace ostrel {

FileChange::FileChange(std::string path, std::optional<std::string> oldText, std::string newText)
    : path_(std::move(path)), newText_(std::move(newText)), makesFile_(!oldText) {
  if (oldText) oldText_ = std::move(*oldText);
}

std::string FileChange::unifiedDiff(std::size_t context) const {
  return ostrel::unifiedDiff(oldText_, newText_, {makesFile_ ? "/dev/null" : path_, path_}, context);
}

bool FileChange::isCurrent() const {
  const FileDescriptor file = openRegularFile(path_);
  const auto text = file ? readToEnd(file.get()) : std::nullopt;
  if (!text) return makesFile_ && errno == ENOENT;
  return !makesFile_ && *text == oldText_;
}

bool FileChange::save(const AtomicWriteOptions& options) const { return !changed() || write(options); }

bool FileChange::write(const AtomicWriteOptions& options) const {
  return writeFileAtomically(path_, newText_, options);
}

}  // namespace ostrel
