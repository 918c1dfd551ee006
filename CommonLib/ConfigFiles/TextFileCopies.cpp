#include "ConfigFiles/TextFileCopies.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "ConfigFiles/Internal/CompactCopy.h"
#include "ConfigFiles/Internal/TextFileLines.h"
#include "Platform/Files.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace detail {

std::int32_t copyLines(std::FILE* from, std::FILE* to, bool collapse) noexcept {
  TextLineReader reader(from, 0);
  bool isWritten = true;
  bool afterBlankLine = false;
  while (isWritten && reader.next()) {
    const TextLine& line = reader.line();
    const bool isBlankLine = line.bytes.size() == 1 && line.isEmpty();
    if (!(collapse && isBlankLine && afterBlankLine))
      isWritten = std::fwrite(line.bytes.data(), 1, line.bytes.size(), to) == line.bytes.size();
    afterBlankLine = isBlankLine;
  }
  if (reader.failure() != 0) return kTextFileReadErr;
  return std::fflush(to) == 0 && isWritten ? 0 : kTextFileWriteErr;
}

}  // namespace detail

namespace {

constexpr std::size_t longestPath = 511;

struct CloseStream {
  void operator()(std::FILE* stream) const { static_cast<void>(std::fclose(stream)); }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

Stream openStream(FileDescriptor descriptor, const char* mode) {
  if (!descriptor) return nullptr;
  Stream stream(fdopen(descriptor.get(), mode));
  if (stream) static_cast<void>(descriptor.release());
  return stream;
}

struct Source {
  Stream stream;
  FileStatus status;
};

std::int32_t openSource(const std::string& path, Source& source) {
  FileDescriptor file = openRegularFile(path);
  if (!file) return errno == EISDIR || errno == EINVAL ? kTextFileReadErr : kTextFileOpenErr;
  const auto status = descriptorStatus(file.get());
  if (!status) return kTextFileReadErr;
  source.status = *status;
  source.stream = openStream(std::move(file), "r");
  return source.stream ? 0 : kTextFileOpenErr;
}

// A file that was not there before; nobody else may open it until its mode is set.
Stream createStream(const std::string& path) {
  return openStream(openFile(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600), "w");
}

bool isSameFile(const std::string& path, const FileStatus& status) {
  const auto found = linkStatus(path);
  return found && found->device == status.device && found->inode == status.inode;
}

std::int32_t duplicate(const std::string& from, const std::string& to) {
  Source source;
  const std::int32_t code = openSource(from, source);
  if (code != 0) return code;
  // With one link only, or one path, the two are the same entry: removing it would lose the file, or leave its links.
  if ((source.status.links == 1 || from == to) && isSameFile(to, source.status)) return 0;
  removeFile(to);
  const Stream made = createStream(to);
  if (!made || !changeMode(fileno(made.get()), source.status.mode & 0777U)) return kTextFileCreateErr;
  return detail::copyLines(source.stream.get(), made.get(), false);
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Writes the compacted file to `temporary` and gives it the file's place.
std::int32_t replaceCompacted(const Source& source, const Stream& made, const std::string& temporary,
                              const std::string& path) {
  const int descriptor = fileno(made.get());
  if (!copyFileAttributes(fileno(source.stream.get()), descriptor)) return kTextFileCreateErr;
  const std::int32_t code = detail::copyLines(source.stream.get(), made.get(), true);
  if (code != 0) return code;
  if (!syncFile(descriptor)) return kTextFileWriteErr;
  // Another compaction of the same file removes this one's temporary file and makes its own.
  const auto status = descriptorStatus(descriptor);
  if (!status || !isSameFile(temporary, *status)) return kTextFileRenameErr;
  if (std::rename(temporary.c_str(), path.c_str()) != 0) return kTextFileRenameErr;
  return syncDirectory(folderOf(path)) ? 0 : kTextFileWriteErr;
}

void removeIfSame(const std::string& path, const Stream& made) {
  const auto status = descriptorStatus(fileno(made.get()));
  if (status && isSameFile(path, *status)) removeFile(path);
}

std::int32_t compact(const std::string& given) {
  if (given.size() > longestPath) return kTextFileCreateErr;
  const auto path = followLinks(given);
  Source source;
  const std::int32_t fault = path ? openSource(*path, source) : kTextFileOpenErr;
  if (fault != 0) return fault;
  const std::string temporary = *path + ".tmp";
  removeFile(temporary);
  const Stream made = createStream(temporary);
  if (!made) return kTextFileCreateErr;
  const std::int32_t code = replaceCompacted(source, made, temporary, *path);
  if (code != 0) removeIfSame(temporary, made);
  return code;
}

}  // namespace

extern "C" {

std::int32_t DuplicateTextFile(const char* source, const char* destination) {
  if (source == nullptr) return kTextFileOpenErr;
  if (destination == nullptr) return kTextFileCreateErr;
  try {
    return duplicate(source, destination);
  } catch (const std::bad_alloc&) {
    return kTextFileNoMemoryErr;
  }
}

std::int32_t CompactFile(const char* path) {
  if (path == nullptr) return kTextFileOpenErr;
  try {
    return compact(path);
  } catch (const std::bad_alloc&) {
    return kTextFileNoMemoryErr;
  }
}

}  // extern "C"

}  // namespace ostrel
