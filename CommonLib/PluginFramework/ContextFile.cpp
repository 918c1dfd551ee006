#include "PluginFramework/Internal/ContextFile.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/DescriptorPath.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/Internal/ContextJournal.h"

namespace ostrel::detail {
namespace {

constexpr mode_t contextFileMode = 0770;

std::string failureOf(std::string_view operation) {
  return format("%s: %s", operation, std::generic_category().message(errno));
}

/// The file that carries the lock, and the journal beside it.
class ContextFile {
 public:
  /// Throws std::runtime_error when the file cannot be read.
  explicit ContextFile(int descriptor);

  /// The bytes of the file, after an interrupted write has been completed.
  const std::string& bytes() const noexcept { return bytes_; }
  const std::string& path() const noexcept { return path_; }
  mode_t mode() const noexcept { return status_.mode & 0777; }

  void write(const std::string& newBytes);
  void erase();

 private:
  void openJournal(int flags);
  void completeInterruptedWrite();
  void writeJournal(const JournalRecord& record);
  bool put(const JournalRecord& record);
  bool replaceFrom(std::uint64_t start, const std::string& part, std::uint64_t length);

  const int descriptor_;
  FileStatus status_;
  std::string path_;
  std::string bytes_;
  FileDescriptor journal_;
};

[[noreturn]] void fail(std::string_view operation) { throw std::runtime_error(failureOf(operation)); }

std::string readAll(int descriptor, std::uint64_t size) {
  std::string bytes(size, '\0');
  const ssize_t count = readAt(descriptor, bytes.data(), bytes.size(), 0);
  if (count < 0) fail("read");
  bytes.resize(static_cast<std::size_t>(count));
  return bytes;
}

ContextFile::ContextFile(int descriptor) : descriptor_(descriptor) {
  const auto status = descriptorStatus(descriptor);
  if (!status) fail("fstat");
  status_ = *status;
  if (!status_.isRegularFile()) throw std::runtime_error("not a regular file");
  bytes_ = readAll(descriptor, status_.size);
  // A file that has been removed meanwhile belongs to its holder alone: what is written to it is gone with the close.
  if (status_.links == 0) return;
  const auto path = descriptorPath(descriptor);
  if (!path) fail("path of the file");
  path_ = *path;
  openJournal(O_RDWR);
  completeInterruptedWrite();
}

void ContextFile::openJournal(int flags) { journal_ = openFile(path_ + ".journal", flags | O_NOFOLLOW, mode()); }

void ContextFile::completeInterruptedWrite() {
  if (!journal_) return;
  const auto status = descriptorStatus(journal_.get());
  if (!status || !status->isRegularFile()) return journal_.reset();  // a pipe would block
  const std::uint64_t size = encodedSize(readAll(journal_.get(), journalHeadSize));
  if (size == 0 || size > status->size) return;
  const auto record = decodeJournal(readAll(journal_.get(), size));
  if (record && isInterruptedWrite(bytes_, *record)) put(*record);
}

/// Puts the new bytes of a write in place. False, with the reason in errno, when the old ones are there again instead.
bool ContextFile::put(const JournalRecord& record) {
  if (replaceFrom(record.start, record.newBytes, record.newLength)) return true;
  const int reason = errno;  // no space, say: the old bytes need none that they have not got
  if (!replaceFrom(record.start, record.oldBytes, record.oldLength)) fail("write, and writing the old bytes again");
  errno = reason;
  return false;
}

/// Makes the file its bytes before `start`, those of `part`, and the rest of its own up to `length`.
bool ContextFile::replaceFrom(std::uint64_t start, const std::string& part, std::uint64_t length) {
  if (!writeAt(descriptor_, part, start)) return false;
  const auto status = descriptorStatus(descriptor_);
  if (!status || (status->size > length && !truncateFile(descriptor_, length))) return false;
  bytes_.resize(std::max<std::size_t>(bytes_.size(), start + part.size()));
  bytes_.replace(start, part.size(), part);
  bytes_.resize(length);
  return true;
}

void ContextFile::writeJournal(const JournalRecord& record) {
  if (!syncFileData(descriptor_)) fail("fdatasync");
  const bool isNew = !journal_;
  if (isNew) {
    openJournal(O_RDWR | O_CREAT | O_EXCL);
    // Who may write the file but not its folder does without.
    if (!journal_ && (errno == EACCES || errno == EPERM)) return;
    if (!journal_) fail("open of the journal");
    changeMode(journal_.get(), mode());
    changeOwner(journal_.get(), status_.user, status_.group);
  }
  if (!writeAt(journal_.get(), encodeJournal(record), 0)) fail("write of the journal");
  if (!syncFileData(journal_.get())) fail("fdatasync of the journal");
  if (isNew && !syncDirectory(path_.substr(0, path_.rfind('/') + 1))) fail("fsync of the folder");
}

void ContextFile::write(const std::string& newBytes) {
  if (newBytes == bytes_) return;
  const JournalRecord record = makeRecord(newBytes, bytes_);
  if (status_.links != 0) writeJournal(record);
  if (!put(record)) fail("write");
}

void ContextFile::erase() {
  // The journal goes first: what it holds must not come back.
  if (journal_) {
    if (!syncFileData(descriptor_)) fail("fdatasync");
    if (!truncateFile(journal_.get(), 0) || !syncFileData(journal_.get())) fail("ftruncate of the journal");
  }
  if (!truncateFile(descriptor_, 0)) fail("ftruncate");
}

void keepUnreadable(const ContextFile& file) {
  const std::string aside = file.path() + ".unreadable";
  if (file.path().empty() || fileExists(aside)) return;
  AtomicWriteOptions options;
  options.mode = file.mode();
  writeFileAtomically(aside, file.bytes(), options);
}

std::optional<std::string> reasonOf(const auto& work) {
  try {
    work();
    return std::nullopt;
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

}  // namespace

bool isDirty(const PlistValue& context) {
  const PlistValue dirty = context.get("contextDirty");
  return dirty.stringValue() == "YES" || (dirty.isNumber() && dirty.boolValue());
}

int openContextFile(const std::string& path, bool exactMode) {
  // Almost always the file is there: asking for that first saves a system call. The answer is the same as that of an
  // exclusive creation first, also when another process makes the file in between.
  FileDescriptor file = openFile(path, O_RDWR);
  if (!file && errno == ENOENT) {
    file = openFile(path, O_RDWR | O_CREAT | O_EXCL, contextFileMode);
    if (file && exactMode) changeMode(file.get(), contextFileMode);
    if (!file && errno == EEXIST) file = openFile(path, O_RDWR);
  }
  return file.release();
}

PlistValue readContext(int descriptor) {
  PlistValue context;
  const auto reason = reasonOf([&] {
    const ContextFile file(descriptor);
    if (file.bytes().empty()) return;
    PlistError error;
    context = readPropertyList(file.bytes(), PlistForm::mutableContainers, &error);
    if (context.isDictionary()) return;
    keepUnreadable(file);
    throw std::runtime_error(context.isNull() ? format("%s at byte %d", error.message, error.offset)
                                              : std::string("the stored context is not a dictionary"));
  });
  if (reason) logNotice("[%d] exception in get_and_lock_context: %s\n", processId(), *reason);
  return context.isDictionary() ? context : PlistValue::mutableDictionary();
}

std::optional<std::string> writeContext(int descriptor, const PlistValue& context) {
  return reasonOf([&] {
    const auto archive = writeBinaryPropertyList(context);
    if (!archive) throw std::runtime_error("the context cannot be archived");
    ContextFile(descriptor).write(*archive);
  });
}

std::optional<std::string> eraseContext(int descriptor) {
  return reasonOf([&] { ContextFile(descriptor).erase(); });
}

void handOverContext() noexcept {
  static std::atomic<unsigned> handovers = 0;
  handovers.fetch_add(1, std::memory_order_acq_rel);
}

}  // namespace ostrel::detail
