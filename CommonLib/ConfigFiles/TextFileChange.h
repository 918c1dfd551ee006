// The in-place editing of text files on a private copy: to see what it would do, or to save its result in one step.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ConfigFiles/FileChange.h"
#include "Containers/Export.h"

namespace ostrel {

/// A text as an open stream that is no file of the disk (memfd_create(2)): what the functions of TextFileEditing.h,
/// TextDirectives.h and TextBlocks.h edit. Threads: one object on one thread at a time.
class OSTREL_EXPORT EditableText {
 public:
  /// Absent, with the reason in errno, when there is no memory or no descriptor left.
  static std::optional<EditableText> open(std::string_view text);

  /// The stream to edit; it stays this object's.
  std::FILE* stream() const noexcept { return stream_.get(); }

  /// The text as it is now; absent, with the reason in errno, when it cannot be read.
  std::optional<std::string> text() const;
  /// The text as `CompactFile` would leave it; absent likewise.
  std::optional<std::string> compactText() const;

 private:
  struct Close {
    void operator()(std::FILE* stream) const noexcept;
  };
  std::unique_ptr<std::FILE, Close> stream_;
};

/// What `edit` would make of the file at `path`, followed by `CompactFile` unless nothing was changed. The file is read
/// once and not touched; saving the change replaces it in one step, unlike the editing in place. `code` becomes the
/// edit's result, kTextFileOpenErr when the file cannot be read, or kTextFileNoMemoryErr; the change is absent when it
/// is not 0.
OSTREL_EXPORT std::optional<FileChange> changeOfTextFile(const std::string& path,
                                                         const std::function<std::int32_t(std::FILE*)>& edit,
                                                         std::int32_t& code);

}  // namespace ostrel
