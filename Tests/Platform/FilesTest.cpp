#include "Platform/Files.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>

#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using ostrel::testing::readFile;
using ostrel::testing::TemporaryFolder;
using ostrel::testing::writeFile;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

const std::string nulInName("a\0b", 3);

mode_t permissions(const std::string& path) { return fileStatus(path)->mode & 07777U; }

// Lets no file grow beyond `bytes` for a scope: the nearest thing to a full disk that needs no privileges.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t bytes) : signal_(::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &former_);
    rlimit limit = former_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~ScopedFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &former_);
    ::signal(SIGXFSZ, signal_);
  }

 private:
  rlimit former_{};
  void (*signal_)(int);
};

TEST(ReadWholeFile, TellsAFileFromWhatIsNone) {
  const TemporaryFolder folder;
  const std::string long_(300'000, 'x');
  writeFile(folder / "long", long_);
  writeFile(folder / "empty", "");
  EXPECT_EQ(readWholeFile(folder / "long"), long_);
  EXPECT_EQ(readWholeFile(folder / "long", long_.size()), long_);
  EXPECT_EQ(readWholeFile(folder / "empty", 0), "");
  EXPECT_THAT(readWholeFile("/proc/self/status").value_or(""), ::testing::HasSubstr("Pid:"));

  const struct {
    std::string path;
    std::size_t limit;
    int error;
  } failures[] = {
      {folder / "long", long_.size() - 1, EFBIG}, {folder / "long", 0, EFBIG},       {"/proc/self/status", 3, EFBIG},
      {folder / "missing", SIZE_MAX, ENOENT},     {folder.path(), SIZE_MAX, EISDIR}, {"", SIZE_MAX, ENOENT},
      {(folder / "empty") + nulInName, 9, EINVAL}};
  for (const auto& [path, limit, error] : failures) {
    errno = 0;
    EXPECT_FALSE(readWholeFile(path, limit)) << path;
    EXPECT_EQ(errno, error) << path;
  }
}

TEST(WriteFileAtomically, MakesTheFileWithTheModeAskedFor) {
  const TemporaryFolder folder;
  const mode_t former = umask(0077);
  EXPECT_TRUE(writeFileAtomically(folder / "new", "text", {.mode = 0664}));
  umask(former);
  EXPECT_EQ(permissions(folder / "new"), 0664U);
  EXPECT_EQ(readFile(folder / "new"), "text");
  EXPECT_THAT(*listDirectory(folder.path()), ElementsAre("new"));
}

TEST(WriteFileAtomically, KeepsWhatTheFileWas) {
  const TemporaryFolder folder;
  const std::string path = folder / "kept";
  writeFile(path, "old");
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(chown(path.c_str(), 1234, 5678), 0);
  }
  ASSERT_EQ(chmod(path.c_str(), 02751), 0);
  const FileDescriptor reader = openFile(path, O_RDONLY);

  ASSERT_TRUE(writeFileAtomically(path, "new", {.mode = 0600}));
  EXPECT_EQ(readFile(path), "new");
  EXPECT_EQ(permissions(path), 02751U);
  if (isRoot) {
    EXPECT_EQ(fileStatus(path)->user, 1234U);
    EXPECT_EQ(fileStatus(path)->group, 5678U);
  }
  // Whoever reads the old file is not disturbed.
  EXPECT_EQ(readToEnd(reader.get()), "old");

  ASSERT_TRUE(writeFileAtomically(path, "own", {.mode = 0600, .keepExisting = false}));
  EXPECT_EQ(permissions(path), 0600U);
  EXPECT_EQ(fileStatus(path)->user, geteuid());
  EXPECT_THAT(*listDirectory(folder.path()), ElementsAre("kept"));
}

// An access list that lets one more user in (posix_acl_xattr.h of the kernel: version 2, then tag, permissions, id).
TEST(WriteFileAtomically, KeepsTheAccessList) {
  const TemporaryFolder folder;
  const std::string path = folder / "shared";
  writeFile(path, "old");
  const std::string anyone("\xFF\xFF\xFF\xFF", 4);
  const std::string list = std::string("\2\0\0\0", 4) + std::string("\1\0\6\0", 4) + anyone +
                           std::string("\2\0\4\0\xE8\3\0\0", 8) + std::string("\4\0\0\0", 4) + anyone +
                           std::string("\x10\0\4\0", 4) + anyone + std::string("\x20\0\0\0", 4) + anyone;
  if (setxattr(path.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) != 0)
    GTEST_SKIP() << "this file system keeps no access lists";
  ASSERT_TRUE(writeFileAtomically(path, "new"));
  std::string kept(list.size() + 1, '\0');
  const ssize_t size = getxattr(path.c_str(), "system.posix_acl_access", kept.data(), kept.size());
  EXPECT_EQ(kept.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size)), list);
  EXPECT_EQ(readFile(path), "new");
}

TEST(WriteFileAtomically, FollowsLinksAndNeverReplacesThem) {
  const TemporaryFolder folder;
  ASSERT_TRUE(makeDirectories(folder / "deep"));
  writeFile(folder / "deep/target", "old");
  std::filesystem::create_symlink("deep/target", folder / "relative");
  std::filesystem::create_symlink(folder / "relative", folder / "absolute");
  std::filesystem::create_symlink("deep/not-there-yet", folder / "dangling");
  EXPECT_TRUE(writeFileAtomically(folder / "absolute", "new"));
  EXPECT_TRUE(writeFileAtomically(folder / "dangling", "made"));
  EXPECT_EQ(readFile(folder / "deep/target"), "new");
  EXPECT_EQ(readFile(folder / "deep/not-there-yet"), "made");
  for (const char* link : {"relative", "absolute", "dangling"})
    EXPECT_TRUE(std::filesystem::is_symlink(folder / link)) << link;
  for (const char* link : {"relative", "dangling"}) {
    errno = 0;
    EXPECT_FALSE(writeFileAtomically(folder / link, "refused", {.followLink = false})) << link;
    EXPECT_EQ(errno, ELOOP) << link;
  }
  EXPECT_TRUE(writeFileAtomically(folder / "deep/target", "no link", {.followLink = false}));
  EXPECT_EQ(readFile(folder / "deep/target"), "no link");
  EXPECT_THAT(*listDirectory(folder / "deep"), UnorderedElementsAre("target", "not-there-yet"));
  const std::string far = "deep/" + std::string(240, 'n') + "/" + std::string(240, 'n');
  std::filesystem::create_symlink(far, folder / "far");
  EXPECT_EQ(readLink(folder / "far"), far);
  EXPECT_FALSE(readLink(folder / "deep"));
}

TEST(WriteFileAtomically, AFailureLeavesTheOldFileAndNothingElse) {
  const TemporaryFolder folder;
  writeFile(folder / "file", "old");
  ASSERT_TRUE(makeDirectories(folder / "folder"));
  std::filesystem::create_symlink("loop", folder / "loop");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  const auto before = *listDirectory(folder.path());

  const struct {
    std::string path;
    int error;
  } cases[] = {{folder / "file", EFBIG},
               {folder / "unmade", EFBIG},
               {folder / "folder", EISDIR},
               {folder / "folder/", EISDIR},
               {folder / "loop", ELOOP},
               {folder / "pipe", EINVAL},
               {folder / "missing/file", ENOENT},
               {folder / "file/below", ENOTDIR},
               {"", ENOENT},
               {(folder / "x") + nulInName, EINVAL}};
  {
    const ScopedFileSizeLimit limit(1000);
    for (const auto& [path, error] : cases) {
      errno = 0;
      EXPECT_FALSE(writeFileAtomically(path, std::string(100'000, 'n'))) << path;
      EXPECT_EQ(errno, error) << path;
    }
  }
  EXPECT_EQ(readFile(folder / "file"), "old");
  EXPECT_THAT(*listDirectory(folder.path()), ::testing::UnorderedElementsAreArray(before));
  EXPECT_THAT(*listDirectory(folder / "folder"), ::testing::IsEmpty());
}

// The name of the temporary file of a target with the longest name must not be too long itself.
TEST(WriteFileAtomically, TakesTheLongestName) {
  const TemporaryFolder folder;
  EXPECT_TRUE(writeFileAtomically(folder / std::string(255, 'n'), "text"));
}

// As another user than the file's owner: the new file cannot be given to the owner, so the old one must stand.
TEST(WriteFileAtomically, FailsWhenTheOwnerCannotBeKept) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  const TemporaryFolder folder;
  writeFile(folder / "roots", "old");
  ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool dropped = setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0;
    _exit(dropped && !writeFileAtomically(folder / "roots", "new") && errno == EPERM ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readFile(folder / "roots"), "old");
  EXPECT_THAT(*listDirectory(folder.path()), ElementsAre("roots"));
}

TEST(MakeDirectories, MakesWhatIsMissingWithTheModeAskedFor) {
  const TemporaryFolder folder;
  const mode_t former = umask(0077);
  EXPECT_TRUE(makeDirectories(folder / "a//b/c/", 0750));
  umask(former);
  for (const char* made : {"a", "a/b", "a/b/c"}) EXPECT_EQ(permissions(folder / made), 0750U) << made;
  EXPECT_TRUE(makeDirectories(folder / "a/b", 0700));
  EXPECT_EQ(permissions(folder / "a/b"), 0750U) << "what is there is left alone";

  writeFile(folder / "file", "");
  for (const std::string& path : {folder / "file", folder / "file/below"}) {
    EXPECT_FALSE(makeDirectories(path)) << path;
    EXPECT_EQ(errno, ENOTDIR) << path;
  }
  EXPECT_FALSE(makeDirectories((folder / "n") + nulInName));
  EXPECT_FALSE(makeDirectories(""));
}

TEST(Files, NamesAreTestedAndRemovedAsTheyStand) {
  const TemporaryFolder folder;
  writeFile(folder / "file", "");
  std::filesystem::create_symlink("nowhere", folder / "dangling");
  std::filesystem::create_directory_symlink(folder.path(), folder / "link");
  EXPECT_TRUE(fileExists(folder / "file"));
  EXPECT_FALSE(fileExists(folder / "dangling"));
  EXPECT_FALSE(fileExists((folder / "file") + std::string(1, '\0')));
  EXPECT_TRUE(isDirectory(folder / "link"));
  EXPECT_FALSE(isDirectory(folder / "file"));
  EXPECT_TRUE(S_ISLNK(linkStatus(folder / "link")->mode));
  EXPECT_FALSE(removeFile(folder.path()));
  EXPECT_TRUE(removeFile(folder / "link"));
  EXPECT_TRUE(removeFile(folder / "dangling"));
  EXPECT_THAT(*listDirectory(folder.path()), ElementsAre("file"));
  EXPECT_FALSE(listDirectory(folder / "file"));
}

TEST(FileDescriptor, LocksBelongToTheOpenFileAlsoWithinOneProcess) {
  const TemporaryFolder folder;
  writeFile(folder / "lock", "");
  FileDescriptor first = openFile(folder / "lock", O_RDWR);
  const FileDescriptor second = openFile(folder / "lock", O_RDWR);
  EXPECT_TRUE(tryLockFile(first.get()));
  EXPECT_FALSE(tryLockFile(second.get()));
  EXPECT_EQ(errno, EWOULDBLOCK);
  first.reset();
  EXPECT_TRUE(tryLockFile(second.get()));
  EXPECT_TRUE(unlockFile(second.get()));
  EXPECT_FALSE(tryLockFile(-1));
  EXPECT_EQ(errno, EBADF);
}

TEST(FileDescriptor, ReadsAndWritesAtOffsetsWithoutMovingThePosition) {
  const TemporaryFolder folder;
  const FileDescriptor file = openFile(folder / "file", O_RDWR | O_CREAT, 0600);
  ASSERT_TRUE(writeFully(file.get(), "0123456789"));
  ASSERT_TRUE(seekTo(file.get(), 4));
  EXPECT_TRUE(writeAt(file.get(), "AB", 8));
  char buffer[8] = {};
  EXPECT_EQ(readAt(file.get(), buffer, sizeof buffer, 7), 3) << "the file ends first";
  EXPECT_EQ(std::string(buffer, 3), "7AB");
  EXPECT_EQ(readToEnd(file.get()), "4567AB");
  EXPECT_TRUE(truncateFile(file.get(), 2));
  EXPECT_EQ(descriptorStatus(file.get())->size, 2U);
  EXPECT_EQ(readAt(file.get(), buffer, 1, UINT64_MAX), -1);
  EXPECT_FALSE(writeAt(file.get(), "x", UINT64_MAX));
  EXPECT_FALSE(truncateFile(file.get(), UINT64_MAX));
}

}  // namespace
}  // namespace ostrel
