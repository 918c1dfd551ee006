#include "HostFacts/VolumeSupportsFullsync.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Platform/HardwareRegistry.h"
#include "Support/SysTree.h"

namespace ostrel {
namespace {

using testing::FakeVolumes;
using testing::SysTree;

struct Outcome {
  std::int32_t result = 0;
  std::int64_t code = 0;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

constexpr Outcome supported{0, 0};
constexpr Outcome undetermined{1, 5};
constexpr Outcome noDevice{2, 3};

void PrintTo(const Outcome& outcome, std::ostream* out) { *out << outcome.result << "/" << outcome.code; }

Outcome outcomeOf(const PlistValue& path) {
  PlistValue reason;
  const std::int32_t result = VolumeSupportsFullsync(path, &reason);
  EXPECT_EQ(reason.count(), 1U);
  EXPECT_TRUE(reason.get("ReasonCode").isInteger());
  EXPECT_EQ(VolumeSupportsFullsync(path, nullptr), result);
  return {result, reason.get("ReasonCode").int64Value()};
}

// Entries as a test sets them; remembers what was asked.
class FakeRegistry final : public HardwareRegistry {
 public:
  std::map<std::string, PlistValue, std::less<>> entries;  ///< path to properties
  std::vector<std::string> paths{"IOService:/pci/bridge/adapter/port/disk"};
  std::vector<std::string> names;     ///< disks asked for
  std::vector<std::string> searches;  ///< "PATH PROPERTY"

  std::optional<RegistryEntry> diskService(std::string_view name) override {
    names.emplace_back(name);
    return name == "none" ? std::nullopt : std::optional(RegistryEntry{"disk"});
  }
  std::vector<std::string> servicePaths(const RegistryEntry& /*entry*/) override { return paths; }
  std::optional<RegistryEntry> entryAtPath(std::string_view path) override {
    const auto found = entries.find(path);
    return found == entries.end() ? std::nullopt : std::optional(RegistryEntry{found->first});
  }
  PlistValue property(const RegistryEntry& entry, std::string_view name) override {
    return entries.at(entry.place).get(name);
  }
  PlistValue searchUpwards(const RegistryEntry& entry, std::string_view name) override {
    searches.push_back(entry.place + " " + std::string(name));
    for (std::string place = entry.place; !place.empty(); place.resize(std::min(place.rfind('/'), place.size() - 1))) {
      const auto found = entries.find(place);
      if (found != entries.end() && found->second.contains(name)) return found->second.get(name);
      if (place.find('/') == std::string::npos) break;
    }
    return {};
  }
};

class VolumeSupportsFullsyncTest : public ::testing::Test {
 protected:
  void connect(const std::string& path, const PlistValue& interconnect) {
    registry_.entries[path] = PlistValue::dictionaryOf({{"Physical Interconnect", interconnect}});
  }
  FakeVolumes volumes_;
  FakeRegistry registry_;
  ScopedOverride<Volumes> volumesScope_{volumes_};
  ScopedOverride<HardwareRegistry> registryScope_{registry_};
};

TEST_F(VolumeSupportsFullsyncTest, RefusesWhatIsNoQuestion) {
  volumes_.devices["/v"] = "/dev/sda1";
  PlistValue held = PlistValue::dictionaryOf({{"mine", 1}});
  errno = 0;
  EXPECT_EQ(VolumeSupportsFullsync("/v", &held), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(held, PlistValue::dictionaryOf({{"mine", 1}}));
  for (const PlistValue& none : {PlistValue(), PlistValue(5)}) {
    PlistValue reason;
    errno = 0;
    EXPECT_EQ(VolumeSupportsFullsync(none, &reason), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(reason.isNull());
  }
  for (const std::string& path : {std::string("/nowhere"), std::string("/v\0/x", 5), std::string()}) {
    errno = 0;
    EXPECT_EQ(outcomeOf(path), (Outcome{-1, 1}));
    EXPECT_EQ(errno, ENOENT);
  }
}

TEST_F(VolumeSupportsFullsyncTest, AsksForTheKernelsNameOfTheDevice) {
  const std::string longName(2000, 'x');
  const std::pair<std::string, std::string> cases[] = {{"/dev/sda1", "sda1"},
                                                       {"/dev/cciss/c0d0", "cciss/c0d0"},
                                                       {"server:/dev/x/dev/y", "x/dev/y"},
                                                       {"overlay", "overlay"},
                                                       {"/dev/" + longName, longName.substr(0, 1023)},
                                                       {longName, longName.substr(0, 1023)},
                                                       {"server:/home", "server:/home"},
                                                       {"", ""}};
  for (const auto& [device, name] : cases) {
    volumes_.devices["/v"] = device;
    registry_.names.clear();
    outcomeOf("/v");
    ASSERT_FALSE(registry_.names.empty());
    EXPECT_EQ(registry_.names.front(), name);
  }
  volumes_.devices["/v"] = "none";
  EXPECT_EQ(outcomeOf("/v"), noDevice);
}

TEST_F(VolumeSupportsFullsyncTest, OnlyTheListPassesToTheLetter) {
  volumes_.devices["/v"] = "/dev/sda";
  const std::pair<PlistValue, Outcome> cases[] = {{"SAS", supported},
                                                  {"SATA", supported},
                                                  {"Parallel SCSI", supported},
                                                  {"ATA", supported},
                                                  {"USB", undetermined},
                                                  {"Fibre Channel Interface", supported},
                                                  {"FireWire", undetermined},
                                                  {"sata", undetermined},
                                                  {"Fibre Channel", undetermined},
                                                  {"PCI-Express", undetermined},
                                                  {"", undetermined},
                                                  {1, undetermined}};
  for (const auto& [interconnect, outcome] : cases) {
    connect("IOService:/pci/bridge/adapter", interconnect);
    EXPECT_EQ(outcomeOf("/v"), outcome) << interconnect.description();
  }
  errno = EPERM;
  connect("IOService:/pci/bridge/adapter", "ATA");
  VolumeSupportsFullsync("/v", nullptr);
  EXPECT_EQ(errno, 0);
  registry_.paths.clear();
  EXPECT_EQ(outcomeOf("/v"), undetermined) << "no path";
}

TEST_F(VolumeSupportsFullsyncTest, WalksUpAndStopsAtThePCIDevice) {
  volumes_.devices["/v"] = "/dev/sda";
  connect("IOService:/pci/bridge/adapter/port/disk", "SATA");
  EXPECT_EQ(outcomeOf("/v"), undetermined) << "the disk's own entry is not looked at";
  connect("IOService:/pci/bridge/adapter/port", "SATA");
  EXPECT_EQ(outcomeOf("/v"), supported) << "entries that cannot be had are passed over";
  connect("IOService:/pci", "USB");
  EXPECT_EQ(outcomeOf("/v"), undetermined) << "one higher up replaces a nearer one";
  EXPECT_TRUE(registry_.searches.empty());

  const auto adapter = [this](std::initializer_list<PlistValue::KeyValue> properties) {
    PlistValue all = PlistValue::mutableDictionaryOf(properties);
    all.set("IOProviderClass", "IOPCIDevice");
    registry_.entries["IOService:/pci/bridge/adapter"] = all;
  };
  adapter({{"Physical Interconnect", "SAS"}});
  EXPECT_EQ(outcomeOf("/v"), supported) << "what is above the PCI device does not count";
  adapter({});
  EXPECT_EQ(outcomeOf("/v"), undetermined) << "the search goes on above it: USB";
  registry_.entries.erase("IOService:/pci");
  registry_.searches.clear();
  EXPECT_EQ(VolumeSupportsFullsync("/v", nullptr), 1) << "nothing replaces what the walk remembered, too";
  const std::string at = "IOService:/pci/bridge/adapter ";
  EXPECT_THAT(registry_.searches,
              ::testing::ElementsAre(at + "Physical Interconnect", at + "Protocol Characteristics",
                                     at + "Force Write Cache Enable", at + "Protocol Characteristics"));
  adapter({{"Protocol Characteristics", PlistValue::dictionaryOf({{"Physical Interconnect", "ATA"}})},
           {"Force Write Cache Enable", true}});
  EXPECT_EQ(outcomeOf("/v"), supported);
  adapter({{"Protocol Characteristics", "ATA"}});
  EXPECT_EQ(outcomeOf("/v"), undetermined);
}

// What the kernel shows for each bus; the disk is the last word's, a partition on it is what is mounted.
TEST(HardwareRegistry, KnowsTheBusesOfLinux) {
  const std::string pci = "pci0000:00/0000:00:1f.2@pci,class=";
  const struct {
    const char* what;
    std::string devices;
    std::string disk;
    const char* interconnect;  // null: no disk
    Outcome outcome;
  } cases[] = {
      {"SATA",
       pci + "0x010601 /ata1,ata_port/ /ata1/link1/ata_link/link1,sata_spd=<unknown> "
             "/ata2,ata_port/ /ata2/link2/ata_link/link2,sata_spd=6.0Gbps /ata2/host1@scsi",
       "/ata2/host1/target1:0:0/1:0:0:0/block/sda", "SATA", supported},
      {"ATA", pci + "0x01018a /ata1,ata_port/ /ata1/link1/ata_link/link1,sata_spd=<unknown> /ata1/host0@scsi",
       "/ata1/host0/target0:0:0/0:0:0:0/block/sda", "ATA", supported},
      {"SATA without PCI", "platform/ahci@platform /ata1,ata_port/ /ata1/link1/ata_link/link1,sata_spd=3.0Gbps",
       "/ata1/host0/target0:0:0/0:0:0:0/block/sda", "SATA", supported},
      {"SATA disk of a SAS adapter",
       pci + "0x010400 /host1@scsi,sas_host/ /host1/port-1:0/end_device-1:0/ata7,ata_port/",
       "/host1/port-1:0/end_device-1:0/ata7/target1:0:0/1:0:0:0/block/sda", "SAS", supported},
      {"Parallel SCSI", pci + "0x010000 /host0@scsi,spi_host/", "/host0/target0:0:0/0:0:0:0/block/sda", "Parallel SCSI",
       supported},
      {"Fibre Channel", pci + "0x0c0400 /host5@scsi,fc_host/", "/host5/rport-5:0-0/target5:0:0/5:0:0:0/block/sda",
       "Fibre Channel Interface", supported},
      {"iSCSI", "platform/host3@scsi,iscsi_host/", "/session1/target3:0:0/3:0:0:0/block/sda", "iSCSI", undetermined},
      {"USB", pci + "0x0c0330 /usb1@usb /usb1/1-1@usb /usb1/1-1/1-1:1.0@usb /usb1/1-1/1-1:1.0/host6@scsi",
       "/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sda", "USB", undetermined},
      {"USB without PCI", "platform/xhci@platform /usb1@usb /usb1/1-1@usb",
       "/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sda", "USB", undetermined},
      {"FireWire", pci + "0x0c0010 /fw0@firewire /fw1@firewire /fw1/fw1.0@firewire",
       "/fw1/fw1.0/host7/target7:0:0/7:0:0:0/block/sda", "FireWire", undetermined},
      {"NVMe", pci + "0x010802 /nvme/nvme0@nvme,transport=pcie", "/nvme/nvme0/nvme0n1", "PCI-Express", undetermined},
      {"NVMe over TCP", "virtual/nvme-fabrics/ctl /nvme0@nvme,transport=tcp", "/nvme0/nvme0n1", "NVMe over Fabrics",
       undetermined},
      {"NVMe by several controllers", "virtual/nvme-subsystem/nvme-subsys0@nvme-subsystem,nvme0/", "/nvme0n1",
       "PCI-Express", undetermined},
      {"virtio", pci + "0x010000 /virtio1@virtio", "/virtio1/block/vda", "Virtual Interface", undetermined},
      {"SCSI over virtio", pci + "0x010000 /virtio1@virtio /virtio1/host2@scsi",
       "/virtio1/host2/target2:0:0/2:0:0:0/block/sda", "Virtual Interface", undetermined},
      {"Xen", "vbd-51712@xen", "/block/xvda", "Virtual Interface", undetermined},
      {"SD card", "platform/mmc@platform /mmc_host/mmc0/mmc0:0001@mmc", "/mmc_host/mmc0/mmc0:0001/block/mmcblk0",
       "Secure Digital", undetermined},
      {"SD card behind PCI, which says nothing", pci + "0x080501 /mmc_host/mmc0/mmc0:0001@mmc",
       "/mmc_host/mmc0/mmc0:0001/block/mmcblk0", "", undetermined},
      {"adapter known by its class alone", pci + "0x010700 /host0@scsi", "/host0/target0:0:0/0:0:0:0/block/sda", "SAS",
       supported},
      {"RAID adapter that shows nothing", pci + "0x010400 /host0@scsi", "/host0/target0:0:0/0:0:0:0/block/sda", "",
       undetermined},
      {"loop device", "virtual/block", "/loop0", nullptr, noDevice},
      {"RAM disk", "virtual/block", "/zram0", nullptr, noDevice},
      {"name with a slash", "virtual/rbd@rbd", "/pool!image", "", undetermined},
  };
  for (const auto& [what, devices, disk, interconnect, outcome] : cases) {
    SysTree tree;
    tree.add(devices);
    const std::string path = devices.substr(0, devices.find_first_of("@, ")) + disk;
    tree.addDisk(path);
    std::string name = disk.substr(disk.rfind('/') + 1);
    tree.addDisk(path + "/" + name + "1");
    tree.write(path + "/" + name + "1/partition", "1\n");
    std::ranges::replace(name, '!', '/');

    FakeVolumes volumes;
    const ScopedOverride<Volumes> scope(volumes);
    volumes.devices = {{"/whole", "/dev/" + name}, {"/part", "/dev/" + name + "1"}, {"/other", "/dev/sdq"}};
    EXPECT_EQ(outcomeOf("/whole"), outcome) << what;
    EXPECT_EQ(outcomeOf("/part"), outcome) << what;
    EXPECT_EQ(outcomeOf("/other"), noDevice) << what;
    const PlistValue expected = interconnect == nullptr ? PlistValue::arrayOf({}) : PlistValue::arrayOf({interconnect});
    EXPECT_EQ(VolumeInterconnects("/part"), expected) << what << ": " << VolumeInterconnects("/part").description();
  }
}

TEST(HardwareRegistry, ADeviceMadeOfOthersIsAsGoodAsTheWorstOfThem) {
  SysTree tree;
  tree.add("pci0000:00/0000:00:01.0@pci /host0@scsi,sas_host/");
  tree.add("pci0000:00/0000:00:02.0@pci /usb1@usb");
  for (const char* disk : {"sda", "sdb"}) {
    const std::string path = std::string("pci0000:00/0000:00:01.0/host0/") + disk + "/block/" + disk;
    tree.addDisk(path);
    tree.addDisk(path + "/" + disk + "1");
    tree.write(path + "/" + disk + "1/partition", "1");
  }
  tree.addDisk("pci0000:00/0000:00:02.0/usb1/block/sdc");
  tree.addDisk("virtual/block/loop0");
  tree.addMade("md0", {"sda1", "sdb"});
  tree.addDisk("virtual/block/md0/md0p1");
  tree.write("virtual/block/md0/md0p1/partition", "1");
  tree.addMade("dm-0", {"md0p1"});
  tree.addMade("dm-1", {"dm-0", "sda1"});
  tree.addMade("dm-2", {"dm-1", "sdc"});
  tree.addMade("dm-3", {});
  tree.addMade("dm-4", {"loop0"});
  std::string below = "sda";
  for (int i = 10; i < 40; ++i)
    tree.addMade("dm-" + std::to_string(i), {std::exchange(below, "dm-" + std::to_string(i))});

  FakeVolumes volumes;
  const ScopedOverride<Volumes> scope(volumes);
  const struct {
    const char* device;
    Outcome outcome;
    PlistValue interconnects;
  } cases[] = {
      {"/dev/md0", supported, PlistValue::arrayOf({"SAS", "SAS"})},
      {"/dev/md0p1", supported, PlistValue::arrayOf({"SAS", "SAS"})},
      {"/dev/dm-1", supported, PlistValue::arrayOf({"SAS", "SAS"})},  // a disk is asked once
      {"/dev/dm-2", undetermined, PlistValue::arrayOf({"SAS", "SAS", "USB"})},
      {"/dev/dm-3", noDevice, PlistValue::arrayOf({})},
      {"/dev/dm-4", undetermined, PlistValue::arrayOf({""})},
      {"/dev/dm-20", supported, PlistValue::arrayOf({"SAS"})},
      {"/dev/dm-39", undetermined, PlistValue::arrayOf({})},  // more than is looked through
      {"/dev/..", noDevice, PlistValue::arrayOf({})},
      {"/dev/../../devices/virtual/block/md0", noDevice, PlistValue::arrayOf({})},
  };
  for (const auto& [device, outcome, interconnects] : cases) {
    volumes.devices["/v"] = device;
    EXPECT_EQ(outcomeOf("/v"), outcome) << device;
    EXPECT_EQ(VolumeInterconnects("/v"), interconnects) << device << VolumeInterconnects("/v").description();
  }
}

// Whatever this machine has, its answers agree with one another and with the mount table.
TEST(VolumeSupportsFullsync, OfThisMachine) {
  const std::vector<Volume> mounted = Volumes::current().list();
  const auto root = Volumes::current().volumeOf("/");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->path, "/");
  EXPECT_TRUE(std::ranges::any_of(mounted, [&](const Volume& each) { return each.device == root->device; }));
  EXPECT_EQ(Volumes::current().volumeOf("/proc/self/status")->type, "proc");
  EXPECT_EQ(Volumes::current().volumeOf("/etc/passwd/x"), std::nullopt);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(outcomeOf("/proc"), noDevice);
  EXPECT_EQ(outcomeOf("/does/not/exist"), (Outcome{-1, 1}));

  const Outcome outcome = outcomeOf("/");
  const PlistValue interconnects = VolumeInterconnects("/");
  std::string disk = root->device.substr(std::min(root->device.size(), std::string("/dev/").size()));
  std::ranges::replace(disk, '/', '!');
  if (!root->device.starts_with("/dev/") || !std::filesystem::exists("/sys/class/block/" + disk)) {
    EXPECT_EQ(outcome, noDevice) << root->device;
  } else if (outcome == noDevice) {
    EXPECT_EQ(interconnects.count(), 0U);
  } else {
    EXPECT_TRUE(outcome == supported || outcome == undetermined);
    for (const PlistValue& each : interconnects.elements())
      EXPECT_FALSE(outcome == supported && (each == PlistValue("USB") || each == PlistValue("Virtual Interface")));
  }
}

}  // namespace
}  // namespace ostrel
