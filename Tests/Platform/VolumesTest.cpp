#include "Platform/Volumes.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "Platform/HostRoot.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

TEST(MountTable, IsReadWhateverItsTextsHold) {
  const std::string good =
      "21 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw,errors=remount-ro\n"
      "22 21 0:40 /@home /home\\040and\\134more rw shared:2 master:1 - btrfs /dev/mapper/a\\040b rw\n"
      "23 21 0:41 / /mnt/\\011x\\999\\12 rw - fuse.sshfs  rw\n"
      "24 21 259:65537 / /n rw - tmpfs none";
  const std::vector<Mount> mounts = parseMountTable(good);
  ASSERT_EQ(mounts.size(), 4U);
  EXPECT_EQ(mounts[0].id, 21U);
  EXPECT_EQ(mounts[0].deviceMajor, 8U);
  EXPECT_EQ(mounts[0].deviceMinor, 2U);
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_EQ(mounts[1].path, "/home and\\more");
  EXPECT_EQ(mounts[1].source, "/dev/mapper/a b");
  EXPECT_EQ(mounts[2].path, "/mnt/\tx\\999\\12") << "no escape";
  EXPECT_EQ(mounts[2].source, "");
  EXPECT_EQ(mounts[3].deviceMinor, 65537U);

  for (const char* bad : {"", "\n\n", "x 1 8:2 / / rw - ext4 a b", "21x 1 8:2 / / rw - ext4 a b",
                          "21 1 8 / / rw - ext4 a", "21 1 8: / / rw - ext4 a", "21 1 8:2x / / rw - ext4 a",
                          "21 1 8:2 / / rw ext4 a b", "21 1 8:2", "99999999999999999999999 1 8:2 / / rw - ext4 a b"})
    EXPECT_TRUE(parseMountTable(bad).empty()) << bad;
  for (std::size_t size = 0; size < good.size(); ++size) EXPECT_LE(parseMountTable(good.substr(0, size)).size(), 4U);
}

TEST(Volumes, DevicesHaveTheNameOfTheKernel) {
  const auto root = Volumes::current().volumeOf("/");
  ASSERT_TRUE(root);
  const std::vector<Mount> mounts = parseMountTable(testing::readFile("/proc/self/mountinfo"));
  const auto last = std::find_if(mounts.rbegin(), mounts.rend(), [](const Mount& each) { return each.path == "/"; });
  ASSERT_NE(last, mounts.rend());
  EXPECT_EQ(root->type, last->type);

  const testing::TemporaryFolder folder;
  const ScopedHostRoot scope(folder.path());
  EXPECT_EQ(Volumes::current().volumeOf("/")->device, last->source) << "the kernel shows no devices here";
  const std::string link =
      "sys/dev/block/" + std::to_string(last->deviceMajor) + ":" + std::to_string(last->deviceMinor);
  std::filesystem::create_directories(folder / "sys/dev/block");
  std::filesystem::create_symlink("../../devices/pci0/block/cciss!c0d0/cciss!c0d0p1", folder / link);
  EXPECT_EQ(Volumes::current().volumeOf("/")->device, "/dev/cciss/c0d0p1");
}

}  // namespace
}  // namespace ostrel
