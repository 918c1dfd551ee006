#include "PluginFramework/Internal/ContextRecovery.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/HostBoot.h"
#include "PluginFramework/Internal/ContextJournal.h"

namespace ostrel::detail {
namespace {

// What a process writes is on the disk half a minute later, unless the kernel is told otherwise; twice that for a busy
// disk.
constexpr std::int64_t writeBackTime = 60'000'000'000;  // nanoseconds
// The kernel gives a file that is being written times that differ from the one that the write gives it at its end.
constexpr std::int64_t writingTime = 1'000'000'000;

constexpr int mostKeptAside = 100;

FileStatus statusOf(int descriptor) {
  const auto status = descriptorStatus(descriptor);
  if (!status) failContextFile("fstat");
  return *status;
}

bool cutTo(int file, std::uint64_t length) {
  const auto status = descriptorStatus(file);
  return status && (status->size <= length || truncateFile(file, length));
}

bool putBytes(int file, const JournalRecord& record, std::string JournalRecord::Change::*side, std::uint64_t length) {
  return std::ranges::all_of(
             record.changes,
             [&](const JournalRecord::Change& change) { return writeAt(file, change.*side, change.offset); }) &&
         cutTo(file, length);
}

/// A process was ended while it overwrote the file with the record behind `logEnd`.
void finishInterruptedWrite(int file, JournalReplay replay, std::uint64_t logEnd) {
  while (replay.position() < logEnd) {
    const auto done = replay.next();
    if (!done) return;
    replay.apply(*done);
  }
  const auto record = replay.next();
  if (!record) return;  // ended before the record was whole: the file was not touched
  const std::string before = replay.content();
  replay.apply(*record);
  if (!isMixture(readContextBytes(file, statusOf(file).size), before, replay.content())) return;
  if (putBytes(file, *record, &JournalRecord::Change::newBytes, record->newLength)) return;
  // No space, say: the old bytes need none that they have not got.
  if (!putBytes(file, *record, &JournalRecord::Change::oldBytes, record->oldLength))
    failContextFile("write, and writing the old bytes again");
}

/// The times of modification that the file had while the journal was written.
class KnownTimes {
 public:
  explicit KnownTimes(std::int64_t base) : times_{base} {}
  void addRecord(const JournalRecord& record) {
    times_.push_back(record.place.modifiedBefore);
    times_.push_back(record.place.modifiedAfter);
  }
  void addStatus(const JournalStatus& status) { times_.push_back(status.fileModified); }
  /// Whether a file of that time is one of ours, or one whose last records were lost with the machine: the first of
  /// them was made within `longestUnsyncedGap` after the last time that is known, the others before anything was on the
  /// disk.
  bool fit(std::int64_t time) const {
    const std::int64_t latest = times_.back();
    if (time > latest && time <= latest + longestUnsyncedGap + writeBackTime) return true;
    return std::ranges::any_of(times_, [&](std::int64_t known) { return std::abs(time - known) <= writingTime; });
  }

 private:
  std::vector<std::int64_t> times_;
};

void restore(int file, const JournalReplay& replay, int journal, JournalStatus status) {
  status.restoring = 1;
  status.epoch = replay.head().checksum;
  status.boot = bootMark();
  if (!writeAt(journal, encodeStatus(status), journalStatusAt) || !syncFileData(journal))
    failContextFile("write of the journal");
  if (!writeAt(file, replay.content(), 0) || !cutTo(file, replay.content().size())) failContextFile("write");
}

/// The machine has been started anew since the journal was written, or stopped while a file was restored.
void settleAfterRestart(int file, const std::string& path, int journal, JournalReplay replay,
                        const std::optional<JournalStatus>& status) {
  KnownTimes known(replay.head().baseModified);
  while (const auto record = replay.next()) {
    known.addRecord(*record);
    replay.apply(*record);
  }
  if (status && status->logEnd > replay.position()) known.addStatus(*status);  // of a record that was lost
  const FileStatus now = statusOf(file);
  const std::string bytes = readContextBytes(file, now.size);
  if (bytes != replay.content()) {
    const bool restoring = status && status->restoring != 0;
    const bool asTheMachineLeftIt =
        now.changedNanoseconds < HostBoot::current().startedNanoseconds() && known.fit(now.modifiedNanoseconds);
    if (restoring || asTheMachineLeftIt) {
      if (!restoring && !keepAside(path, bytes, now.mode & 0777)) failContextFile("keeping the file found");
      restore(file, replay, journal, status.value_or(JournalStatus()));
    }
  }
  retireJournal(file, journal);
}

}  // namespace

void failContextFile(std::string_view operation) {
  throw std::runtime_error(format("%s: %s", operation, std::generic_category().message(errno)));
}

std::string readContextBytes(int descriptor, std::uint64_t size) {
  std::string bytes(size, '\0');
  const ssize_t count = readAt(descriptor, bytes.data(), bytes.size(), 0);
  if (count < 0) failContextFile("read");
  bytes.resize(static_cast<std::size_t>(count));
  return bytes;
}

bool keepAside(const std::string& path, std::string_view bytes, mode_t mode) {
  AtomicWriteOptions options;
  options.mode = mode;
  for (int number = 1; number <= mostKeptAside; ++number) {
    const std::string aside = path + ".unreadable" + (number == 1 ? std::string() : format(".%d", number));
    const auto status = linkStatus(aside);
    if (!status) return errno == ENOENT && writeFileAtomically(aside, bytes, options);
    if (!status->isRegularFile() || status->size != bytes.size()) continue;
    if (readWholeFile(aside, bytes.size()) == bytes) return true;
  }
  errno = EEXIST;
  return false;
}

void recoverContextFile(int file, const std::string& path, int journal) {
  auto replay = JournalReplay::begin(journal);
  if (!replay) return;
  auto status = readStatus(journal);
  if (status && status->epoch != replay->head().checksum) status.reset();
  const bool restoring = status && status->restoring != 0;
  if (!restoring && replay->head().boot == bootMark()) {
    // A status that is torn was being written: the file has the last record, whole.
    if (status) finishInterruptedWrite(file, std::move(*replay), status->logEnd);
    return;
  }
  settleAfterRestart(file, path, journal, std::move(*replay), status);
}

void retireJournal(int file, int journal) {
  if (!syncFileData(file)) failContextFile("fdatasync");
  if (!truncateFile(journal, 0) || !syncFileData(journal)) failContextFile("ftruncate of the journal");
}

}  // namespace ostrel::detail
