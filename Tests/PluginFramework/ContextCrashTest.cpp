// What is left of a context when its writer, or the machine, stops at any step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Containers/PropertyList.h"
#include "HostFixture.h"
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
    if (change.kind == FileChange::Kind::syncFolder) {
      for (auto& [path, file] : files_) file.named = true;
      return;
    }
    File& file = files_[std::filesystem::path(change.path).lexically_normal().string()];
    if (change.kind == FileChange::Kind::create) return;
    file.pending.push_back(change);
    if (change.kind != FileChange::Kind::sync) return;
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

TEST(ContextCrash, AMachineStoppedAtAnyStepLeavesTheOldOrTheNewContext) {
  const HostFixture host;
  const std::vector<PlistValue> versions{text('a', 3000), text('b', 3000),   text('c', 9000), text('d', 700),
                                         text('e', 40),   text('f', 20'000), text('g', 15)};
  std::vector<FileChange> changes;
  std::vector<std::size_t> ends;  // how many changes there were after each version
  SystemCallTrap::record = &changes;
  for (const PlistValue& version : versions) {
    store(version);
    ends.push_back(changes.size());
  }
  SystemCallTrap::record = nullptr;

  std::map<std::string, int> outcomes;
  for (std::size_t count = 0; count <= changes.size(); ++count) {
    std::size_t current = 0;  // the version that was being written, or had just been
    while (current + 1 < ends.size() && ends[current] < count) ++current;
    for (unsigned seed = 0; seed < 60; ++seed) {
      Disk disk(seed);
      for (std::size_t i = 0; i < count; ++i) disk.apply(changes[i]);
      for (const char* suffix : {"", ".journal"}) std::filesystem::remove(host.lockFile("dns") + suffix);
      disk.restore(host.lockFile("dns"));
      const PlistValue left = load();
      const PlistValue before = current == 0 ? PlistValue() : versions[current - 1];
      ASSERT_TRUE(left == before || left == versions[current])
          << "after " << count << " changes, seed " << seed << ": " << left.description().substr(0, 20);
      ++outcomes[left == before ? "old" : "new"];
    }
  }
  EXPECT_FALSE(std::filesystem::exists(host.lockFile("dns") + ".unreadable"));
  EXPECT_GE(outcomes["old"], 100);
  EXPECT_GE(outcomes["new"], 100);
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
  store(text('t', 3000));
  const std::string thirdFile = testing::readFile(file);
  const std::string thirdJournal = testing::readFile(journal);

  const struct {
    const char* what;
    std::string file, journal;
    PlistValue expected;
  } cases[] = {
      {"an older record", thirdFile, secondJournal, text('t', 3000)},
      {"the old context restored by hand", secondFile, thirdJournal, "second"},
      {"a still older context restored", firstFile, thirdJournal, "first"},
      {"a file emptied by hand", "", thirdJournal, nullptr},
      {"an empty journal", thirdFile, "", text('t', 3000)},
      {"something else under the name", thirdFile, std::string(5000, '\xFF'), text('t', 3000)},
      {"lengths beyond the file", thirdFile, thirdJournal.substr(0, 8) + std::string(56, '\xFF'), text('t', 3000)},
      {"an interrupted write", thirdFile.substr(0, 1000), thirdJournal, text('t', 3000)},
      {"with a leftover behind the record", thirdFile.substr(0, 1000), thirdJournal + "rest", text('t', 3000)},
  };
  for (const auto& [what, fileBytes, journalBytes, expected] : cases) {
    testing::writeFile(file, fileBytes);
    testing::writeFile(journal, journalBytes);
    EXPECT_EQ(load(), expected) << what;
    store("next");
    EXPECT_EQ(load(), PlistValue("next")) << what;
  }
  for (std::size_t i = 0; i < thirdJournal.size(); i += 7) {  // a torn or flipped record repairs nothing
    std::string damaged = thirdJournal;
    damaged[i] = static_cast<char>(damaged[i] ^ 1);
    for (const std::string& bytes : {damaged, thirdJournal.substr(0, i)}) {
      testing::writeFile(file, thirdFile.substr(0, 1000));
      testing::writeFile(journal, bytes);
      load();
      ASSERT_EQ(testing::readFile(file), thirdFile.substr(0, 1000)) << i;
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
    EXPECT_EQ(log.lines().size(), reached ? 1U : 0U) << "a write that failed is told";
  }
}

/// No file can grow beyond a size while this lives, as on a full disk.
class SizeLimit {
 public:
  explicit SizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &former_);
    const rlimit limit{bytes, former_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~SizeLimit() {
    setrlimit(RLIMIT_FSIZE, &former_);
    signal(SIGXFSZ, handler_);
  }
  SizeLimit(const SizeLimit&) = delete;
  SizeLimit& operator=(const SizeLimit&) = delete;

 private:
  rlimit former_{};
  sighandler_t handler_;
};

TEST(ContextCrash, AFullDiskLeavesTheOldContext) {
  const HostFixture host;
  const std::string file = host.lockFile("dns");
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  // A change at the end of a large context: the journal fits where the file does not.
  testing::writeFile(file, *writeBinaryPropertyList(PlistValue::dictionaryOf({{"base", text('b', 20'000)}})));
  store(text('o', 100));
  const std::string old = testing::readFile(file);
  {
    const SizeLimit limit(old.size() + 500);
    store(text('n', 3000));
    EXPECT_EQ(testing::readFile(file), old) << "not half of the new one";
  }
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0], testing::logLine("exception in set_and_unlock_context: write: File too large\n"));

  store(text('n', 3000));
  testing::writeFile(file, testing::readFile(file).substr(0, old.size() + 100));
  {
    const SizeLimit limit(old.size() + 500);
    EXPECT_EQ(load(), text('o', 100)) << "an interrupted write that cannot be completed is undone";
  }
  EXPECT_EQ(testing::readFile(file), old);
  EXPECT_EQ(log.lines().size(), 1U);
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
