// What is left of a context when its writer, or the machine, stops at any step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Containers/PropertyList.h"
#include "HostFixture.h"
#include "Platform/FileDescriptor.h"
#include "Platform/HostBoot.h"
#include "PluginFramework/ContextStore.h"
#include "SystemCallTrap.h"

namespace ostrel {
namespace {

using testing::FileChange;
using testing::HostFixture;
using testing::SystemCallTrap;

void store(const PlistValue& payload) {
  int descriptor = -1;
  PlistValue context = get_and_lock_context("dns", &descriptor);
  context.set("payload", payload);
  context.set("contextDirty", true);
  set_and_unlock_context(&descriptor, &context);
}

PlistValue load() {
  int descriptor = -1;
  PlistValue context = get_and_lock_context("dns", &descriptor);
  set_and_unlock_context(&descriptor, &context);
  return context.get("payload");
}

/// Runs `work` in a child that ends before its change number `step`, or half into it. True when it came that far.
template <class Work>
bool endsAtStep(int step, bool tear, Work work) {
  const pid_t child = fork();
  if (child == 0) {
    SystemCallTrap::changes = 0;
    SystemCallTrap::tear = tear;
    SystemCallTrap::endAt = step;
    work();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 42)) << status;
  return WIFEXITED(status) && WEXITSTATUS(status) == 42;
}

PlistValue text(char letter, std::size_t size) { return std::string(size, letter); }

struct Transition {
  PlistValue before, after;
};
const std::vector<Transition> transitions{
    {nullptr, text('n', 3000)},          // the first write
    {text('o', 3000), text('n', 3000)},  // in place
    {text('o', 20), text('n', 70'000)},  // growing
    {text('o', 70'000), text('n', 20)},  // shrinking
    {text('o', 70'000), text('n', 9'000)},
    {text('o', 70'000), std::string(30'000, 'o') + std::string(9'000, 'n') + std::string(31'000, 'o')},  // amidst
};

void prepare(const HostFixture& host, const PlistValue& before) {
  for (const char* suffix : {"", ".journal", ".unreadable"}) std::filesystem::remove(host.lockFile("dns") + suffix);
  if (!before.isNull()) {
    store(text('x', 5));
    store(before);
  }
}

TEST(ContextCrash, AWriterEndedAtAnyStepLeavesTheOldOrTheNewContext) {
  const HostFixture host;
  int steps = 0;
  int old = 0;
  int recovered = 0;
  for (const Transition& transition : transitions) {
    const PlistValue& before = transition.before;
    const PlistValue& after = transition.after;
    for (const bool tear : {false, true}) {
      for (int step = 1;; ++step, ++steps) {
        prepare(host, before);
        const auto inode = testing::statusOf(host.lockFile("dns")).st_ino;
        if (!endsAtStep(step, tear, [&] { store(after); })) break;
        const PlistValue left = load();
        ASSERT_TRUE(left == before || left == after) << "step " << step << ", tear " << tear;
        (left == before ? old : recovered) += 1;
        ASSERT_TRUE(before.isNull() || testing::statusOf(host.lockFile("dns")).st_ino == inode) << "it carries locks";
        store(text('z', 400));
        ASSERT_EQ(load(), text('z', 400)) << "and the file can be written again";
      }
      EXPECT_EQ(load(), after);
    }
  }
  EXPECT_GE(steps, 50);
  EXPECT_GE(old, 20) << "the test came to the steps before the write";
  EXPECT_GE(recovered, 6) << "and to those within it";
  EXPECT_FALSE(std::filesystem::exists(host.lockFile("dns") + ".unreadable")) << "no load found a broken file";
}

TEST(ContextCrash, ARecoveryEndedAtAnyStepCanBeRepeated) {
  const HostFixture host;
  int repeated = 0;
  for (const Transition& transition : transitions) {
    const PlistValue& before = transition.before;
    const PlistValue& after = transition.after;
    for (int step = 1;; ++step) {
      prepare(host, before);
      if (!endsAtStep(step, true, [&] { store(after); })) break;
      for (int second = 1; endsAtStep(second, true, load); ++second) {
        const PlistValue left = load();
        ASSERT_TRUE(left == before || left == after) << "steps " << step << " and " << second;
        ++repeated;
        prepare(host, before);
        ASSERT_TRUE(endsAtStep(step, true, [&] { store(after); }));
      }
    }
  }
  EXPECT_GE(repeated, 5);
}

// The machine stops.

/// The files as a disk might hold them: what was synced, and any part of what was not.
class Disk {
 public:
  explicit Disk(unsigned seed) : random_(seed) {}

  void apply(const FileChange& change) {
    const std::string path = std::filesystem::path(change.path).lexically_normal().string();
    if (change.kind == FileChange::Kind::syncAll && !files_.contains(path)) {
      for (auto& [name, file] : files_) file.named = true;
      return;
    }
    File& file = files_[path];
    if (change.kind == FileChange::Kind::create) return;
    file.pending.push_back(change);
    if (change.kind != FileChange::Kind::sync && change.kind != FileChange::Kind::syncAll) return;
    for (const FileChange& pending : file.pending) applyTo(file.bytes, pending, 0, pending.bytes.size());
    file.pending.clear();
  }

  /// Writes the files out as they might be found after the machine stopped now.
  void restore(const std::string& lockFile) {
    for (const auto& [path, file] : files_) {
      std::string bytes = file.bytes;
      const auto share = random_() % 5;  // from nothing to everything of what was not synced
      for (const FileChange& change : file.pending)
        for (std::size_t from = 0; from < std::max<std::size_t>(change.bytes.size(), 1); from += sector)
          if (random_() % 4 < share) applyTo(bytes, change, from, sector);
      if (path == lockFile || file.named || random_() % 2 == 0) testing::writeFile(path, bytes);
    }
  }

 private:
  static constexpr std::size_t sector = 512;
  struct File {
    std::string bytes;
    std::vector<FileChange> pending;
    bool named = false;  // its name in the folder is synced
  };

  static void applyTo(std::string& bytes, const FileChange& change, std::size_t from, std::size_t size) {
    if (change.kind == FileChange::Kind::truncate) bytes.resize(change.position);
    if (change.kind != FileChange::Kind::write) return;
    const std::string part = change.bytes.substr(from, size);
    if (bytes.size() < change.position + from + part.size()) bytes.resize(change.position + from + part.size());
    bytes.replace(change.position + from, part.size(), part);
  }

  std::mt19937 random_;
  std::map<std::string, File> files_;
};

/// A machine that is started anew whenever the test says so.
class FakeBoot final : public HostBoot {
 public:
  const std::string& identifier() override { return identifier_; }
  std::int64_t startedNanoseconds() override { return started_; }
  /// Every file that is there now was last touched before the start.
  void restart() {
    identifier_ += "+";
    started_ = INT64_MAX;
  }
  /// The start is so long ago that every file was touched since.
  void startLongAgo() { started_ = 0; }
  /// Back in the first run.
  void first() { identifier_ = "boot"; }

 private:
  std::string identifier_ = "boot";
  std::int64_t started_ = 0;
};

std::int64_t modifiedOf(const std::string& path) { return fileStatus(path)->modifiedNanoseconds; }
void setModifiedOf(const std::string& path, std::int64_t time) {
  ASSERT_TRUE(setModified(openFile(path, O_RDWR).get(), time));
}

/// A history with samples at two places, a coarse and a fine one.
PlistValue sampled(char letter) {
  std::string bytes(5000, '.');
  bytes.replace(90, 30, 30, letter);
  bytes.replace(3000, 900, 900, letter);
  return PlistData{bytes};
}

TEST(ContextCrash, AMachineStoppedAtAnyStepLeavesTheOldOrTheNewContext) {
  const HostFixture host;
  const std::string file = host.lockFile("dns");
  FakeBoot boot;
  const ScopedOverride<HostBoot> bootOverride(boot);
  const struct {
    PlistValue payload;
    bool synced;  // a sample soon after another write is not
    int second;   // the clock is set, too
  } versions[] = {{text('a', 3000), true, 0},   {text('b', 3000), true, 3'600}, {text('c', 9000), true, 7'200},
                  {text('d', 700), true, 100},  {sampled('1'), true, 7'200},    {sampled('2'), false, 7'260},
                  {sampled('3'), false, 7'330}, {sampled('4'), true, 10'000},   {text('f', 20'000), true, 10'010},
                  {sampled('5'), true, 30'000}, {sampled('6'), true, 20'000},   {text('g', 15), true, 20'001},
                  {sampled('7'), true, 20'002}, {sampled('8'), false, 20'060},  {sampled('9'), false, 20'140}};
  std::vector<FileChange> changes;
  std::vector<std::size_t> ends;  // how many changes there were after each version
  std::vector<std::int64_t> times;
  SystemCallTrap::record = &changes;
  for (const auto& version : versions) {
    SystemCallTrap::secondsAhead = version.second;
    store(version.payload);
    ends.push_back(changes.size());
    times.push_back(modifiedOf(file));
    if (ends.size() % 4 != 0) continue;
    times.back() -= 1;
    setModifiedOf(file, times.back());  // no longer what the journal noted: the next write begins an epoch
  }
  SystemCallTrap::record = nullptr;
  SystemCallTrap::secondsAhead = 0;

  std::map<std::string, int> outcomes;
  std::mt19937 random(1);
  std::size_t oldestTime = 0;  // of the file's times since it was last synced with them
  for (std::size_t count = 0; count <= changes.size(); ++count) {
    std::size_t current = 0;  // the version that was being written, or had just been
    while (current + 1 < ends.size() && ends[current] < count) ++current;
    if (count > 0 && changes[count - 1].kind == FileChange::Kind::syncAll && changes[count - 1].path == file)
      oldestTime = current == 0 ? 0 : current - 1;
    const auto begin = changes.begin() + static_cast<std::ptrdiff_t>(current == 0 ? 0 : ends[current - 1]);
    const bool overwriting =
        std::any_of(begin, changes.begin() + static_cast<std::ptrdiff_t>(count), [&](const auto& c) {
          return c.path == file && (c.kind == FileChange::Kind::write || c.kind == FileChange::Kind::truncate);
        });
    const std::size_t newestTime = std::max(oldestTime, overwriting || current == 0 ? current : current - 1);
    for (unsigned seed = 0; seed < 6; ++seed) {
      Disk disk(seed);
      for (std::size_t i = 0; i < count; ++i) disk.apply(changes[i]);
      for (const char* suffix : {"", ".journal"}) std::filesystem::remove(file + suffix);
      disk.restore(file);
      if (count > 0) setModifiedOf(file, times[oldestTime + random() % (newestTime + 1 - oldestTime)]);
      boot.restart();
      const PlistValue left = load();
      boot.first();

      std::size_t found = current + 1;  // which version it is, from 1; 0: none was written
      while (found > 0 && left != versions[found - 1].payload) --found;
      std::size_t oldest = current + (count == ends[current] ? 1 : 0);  // the least that must have come to the disk
      while (oldest > 0 && !versions[oldest - 1].synced) --oldest;
      ASSERT_TRUE(found != 0 || left.isNull()) << "after " << count << " changes, seed " << seed;
      ASSERT_GE(found, oldest) << "after " << count << " changes, seed " << seed;
      ++outcomes[found == current + 1 ? "new" : found == current ? "old" : "a sample lost"];
    }
  }
  EXPECT_GE(outcomes["old"], 50);
  EXPECT_GE(outcomes["new"], 50);
  EXPECT_GE(outcomes["a sample lost"], 5);
}

TEST(ContextCrash, AfterARestartOnlyWhatTheMachineLeftIsRestored) {
  const HostFixture host;
  const std::string file = host.lockFile("dns");
  FakeBoot boot;
  const ScopedOverride<HostBoot> bootOverride(boot);
  store(sampled('1'));
  const std::string first = testing::readFile(file);
  store(sampled('2'));
  const std::int64_t written = modifiedOf(file);
  const std::string second = testing::readFile(file);
  const std::string journal = testing::readFile(file + ".journal");
  const std::string mixture = first.substr(0, 1000) + second.substr(1000);
  ASSERT_TRUE(mixture != first && mixture != second);
  constexpr std::int64_t seconds = 1'000'000'000;

  const struct {
    const char* what;
    std::string bytes;
    std::int64_t modified;
    bool sinceTheRestart;
    bool restored;
  } cases[] = {
      {"half of the last write", mixture, written, false, true},
      {"an older state", first, written, false, true},
      {"nothing", "", written, false, true},
      {"half of a write whose record was lost", mixture, written + 30 * seconds, false, true},
      {"somebody's file, put there after the restart", mixture, written, true, false},
      {"somebody's file, copied with its old time", first, written - 3'600 * seconds, false, false},
      {"somebody's file, an hour later", mixture, written + 3'600 * seconds, false, false},
  };
  for (const auto& [what, bytes, modified, sinceTheRestart, restored] : cases) {
    boot.first();
    std::filesystem::remove(file + ".unreadable");
    testing::writeFile(file, bytes);
    testing::writeFile(file + ".journal", journal);
    setModifiedOf(file, modified);
    boot.restart();
    if (sinceTheRestart) boot.startLongAgo();
    load();
    EXPECT_EQ(testing::readFile(file), restored ? second : bytes) << what;
    EXPECT_EQ(std::filesystem::exists(file + ".unreadable"), restored) << what;
    if (restored) {
      EXPECT_EQ(testing::readFile(file + ".unreadable"), bytes);
    }
    store(text('z', 10));
    EXPECT_EQ(load(), text('z', 10)) << what;
  }

  // Failing at each of its steps, it is done later, and the bytes found are not lost.
  for (int step = 1;; ++step) {
    boot.first();
    for (const char* kept : {".unreadable", ".unreadable.2"}) std::filesystem::remove(file + kept);
    testing::writeFile(file + ".unreadable", "another");
    testing::writeFile(file, mixture);
    testing::writeFile(file + ".journal", journal);
    setModifiedOf(file, written);
    boot.restart();
    SystemCallTrap::changes = 0;
    SystemCallTrap::tear = true;
    SystemCallTrap::failAt = step;
    load();
    const bool reached = SystemCallTrap::changes >= step;
    SystemCallTrap::failAt = 0;
    SystemCallTrap::tear = false;
    load();
    ASSERT_EQ(testing::readFile(file), second) << step;
    ASSERT_EQ(testing::readFile(file + ".unreadable"), "another");
    ASSERT_EQ(testing::readFile(file + ".unreadable.2"), mixture) << step;
    if (!reached) break;
  }

  // Ended at each of its steps, a restoration is begun again.
  int steps = 0;
  for (int step = 1;; ++step, ++steps) {
    boot.first();
    testing::writeFile(file, mixture);
    testing::writeFile(file + ".journal", journal);
    setModifiedOf(file, written);
    boot.restart();
    if (!endsAtStep(step, true, load)) break;
    boot.startLongAgo();  // what the restoration has written itself must not count as somebody's
    if (testing::readFile(file) == mixture) boot.restart();
    load();
    EXPECT_EQ(testing::readFile(file), second) << step;
  }
  EXPECT_GE(steps, 5);
}

TEST(ContextCrash, AProcessSeesWhatOthersDidBetweenItsWrites) {
  const auto inPlace = [](const std::string& path, const std::string& bytes) {
    writeAt(openFile(path, O_RDWR).get(), bytes, 0);
  };
  const auto replace = [](const std::string& path, const std::string& bytes) {
    testing::writeFile(path + ".new", bytes);
    std::filesystem::rename(path + ".new", path);
  };
  using Deed = std::function<void(const std::string& file, const std::string& other)>;
  const std::pair<const char*, Deed> deeds[] = {
      {"nothing", [](const auto&, const auto&) {}},
      {"the file overwritten", inPlace},
      {"the file replaced", replace},
      {"the journal removed", [](const auto& file, const auto&) { std::filesystem::remove(file + ".journal"); }},
      {"the journal replaced",
       [&](const auto& file, const auto&) { replace(file + ".journal", testing::readFile(file + ".journal")); }},
  };
  for (const auto& [what, deed] : deeds) {
    const HostFixture host;
    const std::string file = host.lockFile("dns");
    FakeBoot boot;
    const ScopedOverride<HostBoot> bootOverride(boot);
    store(sampled('1'));
    const std::string other = testing::readFile(file);
    store(sampled('2'));
    store(sampled('3'));
    deed(file, other);
    store(sampled('4'));
    const std::string written = testing::readFile(file);
    const std::int64_t time = modifiedOf(file);
    inPlace(file, other.substr(0, 1000));
    setModifiedOf(file, time);
    boot.restart();
    EXPECT_EQ(load(), sampled('4')) << what;
    EXPECT_EQ(testing::readFile(file), written) << what << ": the log tells the file as it was";
  }
  const HostFixture host;
  store("kept");
  std::filesystem::rename(host.lockFile("dns"), host.lockFile("renamed"));
  int descriptor = -1;
  PlistValue context = get_and_lock_context("renamed", &descriptor);
  context.set("contextDirty", true);
  context.set("payload", "more");
  set_and_unlock_context(&descriptor, &context);
  EXPECT_TRUE(std::filesystem::exists(host.lockFile("renamed") + ".journal"));
}

TEST(ContextCrash, WithoutANameForTheRunOfTheMachineEveryWriteIsSynced) {
  class NamelessBoot final : public HostBoot {
    const std::string& identifier() override { return name_; }
    std::int64_t startedNanoseconds() override { return 0; }
    const std::string name_;
  } boot;
  const ScopedOverride<HostBoot> bootOverride(boot);
  const HostFixture host;
  store(sampled('1'));
  std::vector<FileChange> changes;
  SystemCallTrap::record = &changes;
  store(sampled('2'));
  SystemCallTrap::record = nullptr;
  EXPECT_EQ(std::ranges::count(changes, FileChange::Kind::sync, &FileChange::kind), 2);
  EXPECT_TRUE(endsAtStep(6, true, [] { store(sampled('3')); }));
  const PlistValue left = load();
  EXPECT_TRUE(left == sampled('2') || left == sampled('3'));
}

TEST(ContextCrash, OnlySamplesAreLeftToTheNextSync) {
  const HostFixture host;
  const auto syncsOf = [](const auto& change) {
    std::vector<FileChange> changes;
    int descriptor = -1;
    PlistValue context = get_and_lock_context("dns", &descriptor);
    change(context);
    context.set("contextDirty", true);
    SystemCallTrap::record = &changes;
    set_and_unlock_context(&descriptor, &context);
    SystemCallTrap::record = nullptr;
    return std::ranges::count(changes, FileChange::Kind::sync, &FileChange::kind);
  };
  const auto data = [](const std::string& bytes) { return PlistValue(PlistData{bytes}); };
  EXPECT_EQ(syncsOf([&](PlistValue& context) {
              context.set("history", data("abcdefgh"));
              context.set("other", data("xyz"));
              context.set("count", 1);
            }),
            1)
      << "the first write begins an epoch";
  EXPECT_EQ(syncsOf([&](PlistValue& context) { context.set("history", data("abcdeXgh")); }), 0);
  EXPECT_EQ(syncsOf([&](PlistValue& context) { context.set("other", data("xyY")); }), 0);
  EXPECT_EQ(syncsOf([&](PlistValue& context) { context.set("count", 2); }), 1);
  EXPECT_EQ(syncsOf([&](PlistValue& context) { context.set("other", data("xyYY")); }), 1);
  EXPECT_EQ(syncsOf([&](PlistValue& context) {
              context.set("history", data("abcdeZgh"));
              context.set("count", 3);
            }),
            1);
  EXPECT_EQ(syncsOf([&](PlistValue& context) { context.set("other", "xyYY"); }), 1) << "text in the place of data";
}

TEST(ContextCrash, ALongLogIsBegunAnew) {
  const HostFixture host;
  const std::string journal = host.lockFile("dns") + ".journal";
  std::uintmax_t longest = 0;
  int anew = 0;
  for (int i = 0; i < 3000; ++i) {
    const auto before = std::filesystem::exists(journal) ? std::filesystem::file_size(journal) : 0;
    store(sampled(static_cast<char>('0' + i % 10)));
    const auto size = std::filesystem::file_size(journal);
    longest = std::max(longest, size);
    anew += size < before ? 1 : 0;
  }
  EXPECT_GE(anew, 2);
  EXPECT_LT(longest, (1U << 20) + 10'000);
  EXPECT_EQ(load(), sampled('9'));
}

// Journals that do not belong to the file.

TEST(ContextCrash, AStaleOrTornJournalDamagesNothing) {
  const HostFixture host;
  const std::string file = host.lockFile("dns");
  const std::string journal = file + ".journal";
  store("first");
  const std::string firstFile = testing::readFile(file);
  store("second");
  const std::string secondFile = testing::readFile(file);
  const std::string secondJournal = testing::readFile(journal);
  ASSERT_TRUE(endsAtStep(3, true, [] { store(text('t', 3000)); })) << "half into overwriting the file";
  const std::string tornFile = testing::readFile(file);
  const std::string tornJournal = testing::readFile(journal);
  ASSERT_EQ(load(), text('t', 3000));
  store(text('u', 3000));
  store(text('t', 3000));
  const std::string thirdFile = testing::readFile(file);
  const std::string thirdJournal = testing::readFile(journal);
  const std::string fourth = *writeBinaryPropertyList(PlistValue::dictionaryOf({{"payload", text('4', 3000)}}));

  const struct {
    const char* what;
    std::string file, journal;
    PlistValue expected;
  } cases[] = {
      {"an older journal", thirdFile, secondJournal, text('t', 3000)},
      {"the old context restored by hand", secondFile, thirdJournal, "second"},
      {"the same while a write was interrupted", secondFile, tornJournal, "second"},
      {"a still older context restored", firstFile, tornJournal, "first"},
      {"another context of the same length", fourth, thirdJournal, text('4', 3000)},
      {"a file emptied by hand", "", thirdJournal, nullptr},
      {"an empty journal", thirdFile, "", text('t', 3000)},
      {"something else under the name", thirdFile, std::string(5000, '\xFF'), text('t', 3000)},
      {"lengths beyond the file", thirdFile, thirdJournal.substr(0, 8) + std::string(2000, '\xFF'), text('t', 3000)},
      {"an interrupted write", tornFile, tornJournal, text('t', 3000)},
      {"one that came further", thirdFile.substr(0, 2900), tornJournal, text('t', 3000)},
      {"with a leftover behind the record", tornFile, tornJournal + "rest", text('t', 3000)},
  };
  for (const auto& [what, fileBytes, journalBytes, expected] : cases) {
    testing::writeFile(file, fileBytes);
    testing::writeFile(journal, journalBytes);
    EXPECT_EQ(load(), expected) << what;
    store("next");
    EXPECT_EQ(load(), PlistValue("next")) << what;
  }
  for (std::size_t i = 0; i < tornJournal.size(); i += 7) {  // a torn or flipped record repairs nothing
    const bool isPadding = (i >= 48 && i < 512) || (i >= 584 && i < 1024);
    if (isPadding) continue;
    std::string damaged = tornJournal;
    damaged[i] = static_cast<char>(damaged[i] ^ 1);
    for (const std::string& bytes : {damaged, tornJournal.substr(0, i)}) {
      testing::writeFile(file, tornFile);
      testing::writeFile(journal, bytes);
      load();
      ASSERT_EQ(testing::readFile(file), tornFile) << i;
    }
  }
}

TEST(ContextCrash, AJournalThatIsNoFileStopsTheWriteAndNotTheReader) {
  for (const bool pipe : {false, true}) {
    const HostFixture host;
    testing::RecordingLog log;
    const ScopedOverride<SystemLog> override(log);
    store("good");
    const std::string journal = host.lockFile("dns") + ".journal";
    std::filesystem::remove(journal);
    ASSERT_EQ(pipe ? mkfifo(journal.c_str(), 0600) : symlink((host / "elsewhere").c_str(), journal.c_str()), 0);
    store("lost");
    EXPECT_EQ(load(), PlistValue("good"));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(
        log.lines()[0].starts_with(testing::logLine("exception in set_and_unlock_context: open of the journal: ")))
        << log.lines()[0];
    EXPECT_FALSE(std::filesystem::exists(host / "elsewhere"));
  }
}

TEST(ContextCrash, AFailingDiskLeavesTheOldOrTheNewContext) {
  for (int step = 1; step <= 7; ++step) {
    const HostFixture host;
    testing::RecordingLog log;
    const ScopedOverride<SystemLog> override(log);
    store("old");
    SystemCallTrap::changes = 0;
    SystemCallTrap::failAt = step;
    store(text('n', 100));
    const bool reached = SystemCallTrap::changes >= step;
    SystemCallTrap::failAt = 0;
    const PlistValue left = load();
    EXPECT_TRUE(left == PlistValue("old") || left == text('n', 100)) << step;
    EXPECT_EQ(log.lines().size(), left == text('n', 100) ? 0U : 1U) << "a write that failed is told";
    EXPECT_EQ(step <= 3, reached && left == PlistValue("old")) << "the fourth is a note that can be missed";
  }
}

TEST(ContextCrash, AWriteThatFailsHalfwayIsUndone) {
  const HostFixture host;
  const std::string file = host.lockFile("dns");
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  store(text('m', 100));
  store(text('o', 100));
  const std::string old = testing::readFile(file);
  const std::string journal = testing::readFile(file + ".journal");
  const auto failHalfway = [](int step, const auto& work) {
    SystemCallTrap::changes = 0;
    SystemCallTrap::tear = true;
    SystemCallTrap::failAt = step;
    work();
    SystemCallTrap::failAt = 0;
    SystemCallTrap::tear = false;
  };
  for (const int step : {1, 3}) {  // in the journal, in the file
    failHalfway(step, [] { store(text('n', 3000)); });
    EXPECT_EQ(testing::readFile(file), old) << "not half of the new one";
    EXPECT_EQ(testing::readFile(file + ".journal"), journal) << "nor a record that could bring it back";
  }
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[1], testing::logLine("exception in set_and_unlock_context: write: Input/output error\n"));

  ASSERT_TRUE(endsAtStep(3, true, [] { store(text('n', 3000)); }));
  failHalfway(1, [] { EXPECT_EQ(load(), text('o', 100)) << "what cannot be completed is undone"; });
  EXPECT_EQ(testing::readFile(file), old);
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(ContextCrash, WhatALongerRecordLeftInTheJournalIsNotRead) {
  const HostFixture host;
  store("first");
  store("second");
  std::filesystem::resize_file(host.lockFile("dns") + ".journal", std::uintmax_t{1} << 40);  // takes no space
  EXPECT_EQ(load(), PlistValue("second"));
  store("third");
  EXPECT_EQ(load(), PlistValue("third"));
}

TEST(ContextCrash, TheJournalIsNoMoreOpenThanTheFile) {
  const HostFixture host;
  const mode_t mask = umask(0);
  store("secret");
  umask(mask);
  std::filesystem::remove(host.lockFile("dns") + ".journal");
  ASSERT_EQ(chmod(host.lockFile("dns").c_str(), 0600), 0);
  store("more");
  EXPECT_EQ(testing::statusOf(host.lockFile("dns") + ".journal").st_mode & 07777, 0600U);
}

}  // namespace
}  // namespace ostrel
