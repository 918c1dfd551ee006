#include "PluginFramework/Internal/ContextFile.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/DescriptorPath.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/Internal/ContextJournal.h"
#include "PluginFramework/Internal/ContextRecovery.h"
#include "PluginFramework/Internal/WrittenContexts.h"

namespace ostrel::detail {
namespace {

constexpr mode_t contextFileMode = 0770;
constexpr std::uint64_t smallestLogLimit = 1 << 20;
constexpr std::uint64_t logLimitInBases = 4;
constexpr const char* journalSuffix = ".journal";

/// The file that carries the lock, and the journal beside it.
class ContextFile {
 public:
  /// Completes an interrupted write. Throws std::runtime_error when the file cannot be read.
  explicit ContextFile(int descriptor);

  std::string_view bytes() const noexcept { return bytes_; }
  const std::string& path() const noexcept { return path_; }
  mode_t mode() const noexcept { return status_.mode & 0777; }

  void write(const PlistPieces& archive);
  void erase();
  /// Spares this process's next use of the file to read it. Ends the use of this object.
  void remember();

 private:
  void readStatusOfFile();
  bool resume();
  void findJournal();
  void openJournal(int flags);
  bool isLogCurrent(const FileStatus& journal);

  void writeAhead(const PlistPieces& archive, const Delta& delta);
  bool isLogLong() const noexcept;
  bool beginEpoch();
  void appendRecord(const PlistPieces& archive, const Delta& delta, bool sync);
  [[noreturn]] void failJournal(std::string_view operation);

  bool overwrite(const PlistPieces& archive, const Delta& delta);
  bool putBack(const Delta& delta);
  void noteWritten();
  void takeOver(const PlistPieces& archive, const Delta& delta);

  const int descriptor_;
  FileStatus status_;
  std::string path_;
  std::string bytes_;
  bool isKnown_ = false;  // the file has a time that nobody else gives it, and these bytes

  FileDescriptor journal_;
  FileStatus journalFile_;  // which file that is
  bool isJournalNew_ = false;
  bool isCurrent_ = false;       // the log tells the file as it is: another record may follow
  JournalStatus log_;            // while `isCurrent_`
  std::uint64_t recordEnd_ = 0;  // of the write that is being made; 0: without a journal
  std::int64_t time_ = 0;        // of modification that the file gets with it, in nanoseconds
};

ContextFile::ContextFile(int descriptor) : descriptor_(descriptor) {
  readStatusOfFile();
  if (!status_.isRegularFile()) throw std::runtime_error("not a regular file");
  if (resume()) return;
  // A file that has been removed meanwhile belongs to its holder alone: what is written to it is gone with the close.
  if (status_.links != 0) {
    const auto path = descriptorPath(descriptor);
    if (!path) failContextFile("path of the file");
    path_ = *path;
    findJournal();
    if (journal_ && !isCurrent_) {
      recoverContextFile(descriptor_, path_, journal_.get());
      readStatusOfFile();
    }
  }
  bytes_ = readContextBytes(descriptor_, status_.size);
}

/// Goes on where this process left the file, when nobody has touched it, its name or its journal since.
bool ContextFile::resume() {
  auto written = takeWritten(status_);
  if (!written) return false;
  const auto named = fileStatus(written->path);
  const auto journal = linkStatus(written->path + journalSuffix);
  if (!named || !named->isSameFile(status_) || !journal || !journal->isSameFile(written->journalFile)) return false;
  journal_ = std::move(written->journal);
  journalFile_ = *journal;
  isCurrent_ = isLogCurrent(*journal);
  if (!isCurrent_) return false;
  path_ = std::move(written->path);
  bytes_ = std::move(written->bytes);
  isKnown_ = true;
  return true;
}

void ContextFile::remember() {
  if (isKnown_) rememberWritten({status_, std::move(path_), std::move(bytes_), std::move(journal_), journalFile_});
}

void ContextFile::readStatusOfFile() {
  const auto status = descriptorStatus(descriptor_);
  if (!status) failContextFile("fstat");
  status_ = *status;
}

void ContextFile::findJournal() {
  openJournal(O_RDWR);
  if (!journal_) return;
  const auto status = descriptorStatus(journal_.get());
  if (!status || !status->isRegularFile()) {
    journal_.reset();  // a pipe would block
    return;
  }
  journalFile_ = *status;
  isCurrent_ = isLogCurrent(*status);
}

void ContextFile::openJournal(int flags) { journal_ = openFile(path_ + journalSuffix, flags | O_NOFOLLOW, mode()); }

bool ContextFile::isLogCurrent(const FileStatus& journal) {
  const auto status = readStatus(journal_.get());
  if (!status || status->boot == 0 || status->boot != bootMark() || status->restoring != 0) return false;
  log_ = *status;
  return journal.size == log_.logEnd && status_.inode == log_.inode && status_.size == log_.fileSize &&
         status_.modifiedNanoseconds == log_.fileModified;
}

// Writing.

void ContextFile::write(const PlistPieces& archive) {
  const Delta delta = differenceOf(bytes(), archive);
  if (delta.extents.empty()) return;
  if (status_.links != 0) writeAhead(archive, delta);
  if (!overwrite(archive, delta)) {
    const int reason = errno;  // no space, say: the old bytes need none that they have not got
    if (!putBack(delta)) failContextFile("write, and writing the old bytes again");
    errno = reason;
    if (recordEnd_ != 0) failJournal("write");
    failContextFile("write");
  }
  if (recordEnd_ == 0) return;
  takeOver(archive, delta);
  noteWritten();
}

void ContextFile::writeAhead(const PlistPieces& archive, const Delta& delta) {
  const bool isNewEpoch = !isCurrent_ || isLogLong();
  if (isNewEpoch && !beginEpoch()) return;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  time_ = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  const bool isUnexpected = time_ < log_.fileModified || time_ > log_.fileModified + longestUnsyncedGap;
  appendRecord(archive, delta, isNewEpoch || !delta.onlyPayloads || isUnexpected);
}

bool ContextFile::isLogLong() const noexcept {
  return log_.logEnd > std::max<std::uint64_t>(smallestLogLimit, logLimitInBases * bytes_.size());
}

/// False when there can be no journal.
bool ContextFile::beginEpoch() {
  // On the disk before the former epoch is given up, and that before its place is taken: a half of each would be
  // neither. With its time, which tells after a restart that the file is ours.
  if (!syncFile(descriptor_)) failContextFile("fsync");
  if (!journal_) {
    openJournal(O_RDWR | O_CREAT | O_EXCL);
    // Who may write the file but not its folder does without.
    if (!journal_ && (errno == EACCES || errno == EPERM)) return false;
    if (!journal_) failContextFile("open of the journal");
    isJournalNew_ = true;
    changeMode(journal_.get(), mode());
    changeOwner(journal_.get(), status_.user, status_.group);
    journalFile_ = descriptorStatus(journal_.get()).value_or(FileStatus());
  } else if (!truncateFile(journal_.get(), 0) || !syncFileData(journal_.get())) {
    failContextFile("ftruncate of the journal");
  }
  const JournalHead head = makeHead(bytes(), status_.modifiedNanoseconds);
  log_ = JournalStatus();
  log_.epoch = head.checksum;
  log_.boot = head.boot;
  log_.logEnd = journalBaseAt + bytes_.size();
  log_.inode = status_.inode;
  log_.fileSize = bytes_.size();
  log_.fileModified = status_.modifiedNanoseconds;
  if (!writeAt(journal_.get(), encodeStart(head, log_).append(bytes()), 0)) failJournal("write of the journal");
  return true;
}

void ContextFile::appendRecord(const PlistPieces& archive, const Delta& delta, bool sync) {
  const std::string record =
      encodeRecord(delta, bytes(), archive, {log_.epoch, log_.logEnd, status_.modifiedNanoseconds, time_});
  if (!writeAt(journal_.get(), record, log_.logEnd)) failJournal("write of the journal");
  if (sync && !syncFileData(journal_.get())) failJournal("fdatasync of the journal");
  if (isJournalNew_ && !syncDirectory(path_.substr(0, path_.rfind('/') + 1))) failJournal("fsync of the folder");
  recordEnd_ = log_.logEnd + record.size();
}

/// Takes the record of a write that failed back, so that no crash brings it to the file.
void ContextFile::failJournal(std::string_view operation) {
  const int reason = errno;
  truncateFile(journal_.get(), log_.logEnd);
  errno = reason;
  failContextFile(operation);
}

bool ContextFile::overwrite(const PlistPieces& archive, const Delta& delta) {
  std::string bytes;
  for (const Extent& extent : delta.extents) {
    bytes.clear();
    appendRange(archive, extent.offset, extent.newLength, bytes);
    if (!writeAt(descriptor_, bytes, extent.offset)) return false;
  }
  return delta.newLength >= delta.oldLength || truncateFile(descriptor_, delta.newLength);
}

bool ContextFile::putBack(const Delta& delta) {
  const auto putExtent = [&](const Extent& extent) {
    return writeAt(descriptor_, bytes().substr(extent.offset, extent.oldLength), extent.offset);
  };
  return std::ranges::all_of(delta.extents, putExtent) && truncateFile(descriptor_, delta.oldLength);
}

void ContextFile::takeOver(const PlistPieces& archive, const Delta& delta) {
  std::string bytes;
  for (const Extent& extent : delta.extents) {
    bytes.clear();
    appendRange(archive, extent.offset, extent.newLength, bytes);
    bytes_.replace(extent.offset, extent.oldLength, bytes);
  }
}

/// What is not noted here makes the next write begin an epoch, and no more.
void ContextFile::noteWritten() {
  isKnown_ = false;
  // The kernel's own time of modification stands still for some milliseconds: a foreign write within them could not be
  // told from this one. This time is none that the kernel gives.
  setModified(descriptor_, time_);
  const auto status = descriptorStatus(descriptor_);
  if (!status) return;
  status_ = *status;
  log_.logEnd = recordEnd_;
  log_.fileSize = status_.size;
  log_.fileModified = status_.modifiedNanoseconds;
  const bool noted = writeAt(journal_.get(), encodeStatus(log_), journalStatusAt);
  isKnown_ = noted && status_.modifiedNanoseconds == time_;  // no file system of coarse times
}

void ContextFile::erase() {
  if (journal_) retireJournal(descriptor_, journal_.get());
  if (!truncateFile(descriptor_, 0)) failContextFile("ftruncate");
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
    ContextFile file(descriptor);
    if (file.bytes().empty()) return;
    PlistError error;
    context = readPropertyList(file.bytes(), PlistForm::mutableContainers, &error);
    if (context.isDictionary()) return file.remember();
    std::string fault = context.isNull() ? format("%s at byte %d", error.message, error.offset)
                                         : std::string("the stored context is not a dictionary");
    // The next write ends them.
    if (!file.path().empty() && !keepAside(file.path(), file.bytes(), file.mode())) fault += ", and is not kept aside";
    throw std::runtime_error(fault);
  });
  if (reason) logNotice("[%d] exception in get_and_lock_context: %s\n", processId(), *reason);
  return context.isDictionary() ? context : PlistValue::mutableDictionary();
}

std::optional<std::string> writeContext(int descriptor, const PlistValue& context) {
  return reasonOf([&] {
    const auto archive = writeBinaryPropertyListPieces(context);
    if (!archive) throw std::runtime_error("the context cannot be archived");
    ContextFile file(descriptor);
    file.write(*archive);
    file.remember();
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
