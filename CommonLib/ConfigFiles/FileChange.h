// A change to a text file that was worked out but not made: to be shown (a dry run), compared or saved.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Containers/Export.h"
#include "Platform/Files.h"

namespace ostrel {

/// What an editor would make of a file. Making one touches nothing; only `save` and `write` do. A default-constructed
/// one has no path and changes nothing.
///
/// Threads: one object on one thread at a time; const operations may run side by side.
class OSTREL_EXPORT FileChange {
 public:
  FileChange() = default;
  /// `oldText` is the file's text as it was read, absent when there is no file yet; `newText` is what it is to hold.
  FileChange(std::string path, std::optional<std::string> oldText, std::string newText);

  const std::string& path() const noexcept { return path_; }
  const std::string& oldText() const noexcept { return oldText_; }  ///< "" when there is no file yet
  const std::string& newText() const noexcept { return newText_; }
  bool makesFile() const noexcept { return makesFile_; }
  /// Whether saving would write: the texts differ, or the file is to be made.
  bool changed() const noexcept { return makesFile_ || oldText_ != newText_; }

  /// The change as `diff -u` prints it, under the file's path; "" when nothing changes (and for an empty file that is
  /// to be made, which the form cannot tell). `patch -p1 -d /` takes it where the path is absolute.
  std::string unifiedDiff(std::size_t context = 3) const;

  /// Whether the file still holds `oldText`, or still does not exist: somebody else may have written it since. Blocks
  /// on the disk.
  bool isCurrent() const;

  /// Puts the new text into the file, whole or not at all, as `writeFileAtomically` does: owner, group, mode, access
  /// list and label are kept, a symbolic link is followed to its target and stays, the folder is synced. When nothing
  /// changes the file is not touched, not even its times. `options` tell how a new file is made. True on success;
  /// otherwise the reason is in errno and the file is as it was.
  bool save(const AtomicWriteOptions& options = {}) const;
  /// The same, but the file is replaced also when nothing changes.
  bool write(const AtomicWriteOptions& options = {}) const;

 private:
  std::string path_;
  std::string oldText_;
  std::string newText_;
  bool makesFile_ = false;
};

}  // namespace ostrel
