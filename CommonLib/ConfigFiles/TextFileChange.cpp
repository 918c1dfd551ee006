#include "ConfigFiles/TextFileChange.h"

#include <stdio.h>

#include <utility>

#include "ConfigFiles/Internal/TextFileLines.h"
#include "ConfigFiles/TextFileErrors.h"
#include "Platform/FileDescriptor.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace {

// The text as `copyLines` collapses it.
std::string collapsed(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool afterBlankLine = false;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, detail::firstLineLength(text));
    text.remove_prefix(line.size());
    const bool isBlankLine = line == "\n" || line == "\r";
    if (!isBlankLine || !afterBlankLine) out += line;
    afterBlankLine = isBlankLine;
  }
  return out;
}

}  // namespace

void EditableText::Close::operator()(std::FILE* stream) const noexcept { static_cast<void>(std::fclose(stream)); }

std::optional<EditableText> EditableText::open(std::string_view text) {
  FileDescriptor file = makeMemoryFile("ostrel-text");
  if (!file || !writeFully(file.get(), text)) return std::nullopt;
  EditableText made;
  made.stream_.reset(fdopen(file.get(), "r+"));
  if (!made.stream_) return std::nullopt;
  static_cast<void>(file.release());
  return made;
}

std::optional<std::string> EditableText::text() const {
  const int descriptor = fileno(stream_.get());
  if (std::fflush(stream_.get()) != 0) return std::nullopt;
  const auto status = descriptorStatus(descriptor);
  if (!status) return std::nullopt;
  // Without moving the descriptor's position, of which the stream keeps its own idea.
  std::string bytes(static_cast<std::size_t>(status->size), '\0');
  if (readAt(descriptor, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return std::nullopt;
  return bytes;
}

std::optional<std::string> EditableText::compactText() const {
  const auto whole = text();
  return whole ? std::optional(collapsed(*whole)) : std::nullopt;
}

std::optional<FileChange> changeOfTextFile(const std::string& path, const std::function<std::int32_t(std::FILE*)>& edit,
                                           std::int32_t& code) {
  code = kTextFileOpenErr;
  const FileDescriptor file = openRegularFile(path);
  auto oldText = file ? readToEnd(file.get()) : std::nullopt;
  if (!oldText) return std::nullopt;
  code = kTextFileNoMemoryErr;
  const auto copy = EditableText::open(*oldText);
  if (!copy) return std::nullopt;
  code = edit(copy->stream());
  if (code != 0) return std::nullopt;
  auto newText = copy->text();
  if (newText && *newText != *oldText) newText = collapsed(*newText);
  if (!newText) {
    code = kTextFileNoMemoryErr;
    return std::nullopt;
  }
  return FileChange(path, std::move(*oldText), std::move(*newText));
}

}  // namespace ostrel
