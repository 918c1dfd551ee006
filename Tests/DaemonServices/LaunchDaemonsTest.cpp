// Launch-daemon control: a recorded control tool, systemd's own programs on a temporary host, job description files.
#include "DaemonServices/LaunchDaemons.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <sstream>

#include "Containers/PropertyList.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/SystemdServices.h"
#include "Platform/Internal/SystemdUnit.h"
#include "Platform/TaskRunner.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::TemporaryFolder;
using testing::writeFile;

void writeProgram(const std::string& path, const std::string& script) {
  writeFile(path, "#!/bin/sh\n" + script);
  std::filesystem::permissions(path, std::filesystem::perms(0755));
}

void writeJob(const std::string& path, const PlistValue& job) {
  writeFile(path, writeXmlPropertyList(job).value());
  std::filesystem::permissions(path, std::filesystem::perms(0644));
}

/// A host root, and a file in it where recorded tools write their arguments, one call a line.
class LaunchDaemons : public ::testing::Test {
 protected:
  std::string recorded() const {
    std::string text = readFile(root_ / "calls");
    std::filesystem::remove(root_ / "calls");
    return text;
  }
  /// A tool in the place of launchctl that exits with `status`.
  void makeLaunchTool(int status, const std::string& output = "") const {
    writeProgram(root_ / "bin/launchctl", "printf '<%s>' \"$@\" >>" + (root_ / "calls") + "\nprintf '" + output +
                                              "'\nread line && exit 99\nexit " + std::to_string(status) + "\n");
  }
  std::string job(const std::string& name) const { return root_ / ("System/Library/LaunchDaemons/" + name); }

  const TemporaryFolder root_;
  const ScopedHostRoot hostRoot_{root_.path()};
};

TEST_F(LaunchDaemons, RunTheControlToolWhereThereIsOne) {
  makeLaunchTool(0);
  EXPECT_TRUE(IsLaunchDaemonAvailable());
  writeFile(job("both.plist"), "");
  writeFile(job("both.xml"), "");
  writeFile(job("xml.xml"), "");
  const struct {
    const char* service;
    std::string path;
  } cases[] = {{"/x/y z.plist", "/x/y z.plist"},
               {"both", job("both.plist")},
               {"xml", job("xml.xml")},
               {"neither", job("neither.plist")},
               {"-w", job("-w.plist")}};
  for (const int status : {0, 1, 113}) {
    makeLaunchTool(status);
    for (const auto& [service, path] : cases) {
      EXPECT_EQ(SetLaunchDaemonServiceState(service, true), status == 0) << service;
      EXPECT_EQ(SetLaunchDaemonServiceState(service, false), status == 0) << service;
      EXPECT_EQ(recorded(), "<load><-w><" + path + "><unload><-w><" + path + ">");
    }
  }
  makeLaunchTool(0);
  for (const PlistValue& nothing : {PlistValue(), PlistValue(""), PlistValue("../x"), PlistValue(7),
                                    PlistValue(std::string("a\0b", 3)), PlistValue(std::string("/a\0b", 4))})
    EXPECT_FALSE(SetLaunchDaemonServiceState(nothing, true)) << nothing.description();
  EXPECT_EQ(recorded(), "");
}

TEST_F(LaunchDaemons, AskTheControlToolWhereThereIsOne) {
  makeLaunchTool(0, R"(PID\tStatus\tLabel\n42\t0\tcom.example.maild\n-\t-15\tother\nrubbish\n)");
  EXPECT_EQ(GetLaunchDaemonServiceInfo("com.example.maild"),
            PlistValue::dictionaryOf({{"Label", "com.example.maild"}, {"LastExitStatus", 0}, {"PID", 42}}));
  EXPECT_EQ(GetLaunchDaemonAllServicesInfo().count(), 2U);
  EXPECT_EQ(GetLaunchDaemonAllServicesInfo().get("other").get("LastExitStatus"), PlistValue(-15));
  EXPECT_TRUE(GetLaunchDaemonServiceInfo("absent").isNull());
  EXPECT_TRUE(GetLaunchDaemonServiceInfo({}).isNull());

  writeJob(root_ / "job.plist", PlistValue::dictionaryOf({{"Label", "other"}}));
  writeJob(root_ / "unnamed.plist", PlistValue::dictionaryOf({{"ProgramArguments", "other"}}));
  EXPECT_TRUE(GetLaunchDaemonServiceState("other"));
  EXPECT_TRUE(GetLaunchDaemonServiceState(root_ / "job.plist"));
  for (const PlistValue& off : {PlistValue("othe"), PlistValue(root_ / "unnamed.plist"), PlistValue(root_ / "absent"),
                                PlistValue(), PlistValue(7)})
    EXPECT_FALSE(GetLaunchDaemonServiceState(off)) << off.description();

  makeLaunchTool(1, R"(42\t0\tcom.example.maild\n)");
  EXPECT_TRUE(GetLaunchDaemonAllServicesInfo().isNull());
}

TEST_F(LaunchDaemons, AreNotAvailableWithoutATool) {
  makeLaunchTool(0);
  std::filesystem::permissions(root_ / "bin/launchctl", std::filesystem::perms(0644));
  detail::SystemdServices none({.tool = root_ / "bin"});
  const ScopedOverride<ServiceManager> manager(none);
  EXPECT_FALSE(IsLaunchDaemonAvailable());
  EXPECT_FALSE(SetLaunchDaemonServiceState("maild", true));
  EXPECT_FALSE(GetLaunchDaemonServiceState("maild"));
  EXPECT_TRUE(GetLaunchDaemonServiceInfo("maild").isNull());
  EXPECT_TRUE(GetLaunchDaemonAllServicesInfo().isNull());
  EXPECT_EQ(recorded(), "");
}

TEST_F(LaunchDaemons, SwitchUnitsOfSystemd) {
  ASSERT_TRUE(IsLaunchDaemonAvailable());
  const std::string folder = root_ / "etc/systemd/system/";
  const std::string link = folder + "multi-user.target.wants/";
  writeFile(root_ / "lib/systemd/system/maild.service",
            "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
  for (const std::string& name : {std::string("maild"), std::string("maild.service"), root_ / "maild.plist",
                                  root_ / "lib/systemd/system/maild.service"}) {
    EXPECT_TRUE(SetLaunchDaemonServiceState(name, true)) << name;
    EXPECT_TRUE(std::filesystem::is_symlink(link + "maild.service")) << name;
    EXPECT_TRUE(GetLaunchDaemonServiceState(name)) << name;
    EXPECT_TRUE(SetLaunchDaemonServiceState(name, false)) << name;
    EXPECT_FALSE(std::filesystem::is_symlink(link + "maild.service")) << name;
    EXPECT_FALSE(GetLaunchDaemonServiceState(name)) << name;
  }
  // A description with a label of its own, from the folder of bare names; changed later.
  writeJob(job("webd.plist"),
           PlistValue::dictionaryOf(
               {{"Label", "com.example.webd"}, {"ProgramArguments", PlistValue::arrayOf({"/bin/sleep", "9"})}}));
  const std::string unit = folder + "com.example.webd.service";
  EXPECT_FALSE(GetLaunchDaemonServiceState("com.example.webd"));
  EXPECT_TRUE(SetLaunchDaemonServiceState("webd", true));
  EXPECT_TRUE(GetLaunchDaemonServiceState("com.example.webd"));
  EXPECT_TRUE(GetLaunchDaemonServiceState(job("webd.plist")));
  EXPECT_NE(readFile(unit).find("ExecStart=\":@/bin/sleep\" \"/bin/sleep\" \"9\"\n"), std::string::npos);
  EXPECT_TRUE(SetLaunchDaemonServiceConfigArgs(job("webd.plist"), PlistValue::arrayOf({"/bin/sleep", "8"})));
  EXPECT_TRUE(SetLaunchDaemonServiceState("webd", true));
  EXPECT_NE(readFile(unit).find("\"8\"\n"), std::string::npos);
  EXPECT_TRUE(SetLaunchDaemonServiceState("webd", false));
  EXPECT_FALSE(GetLaunchDaemonServiceState("com.example.webd"));
  EXPECT_TRUE(GetLaunchDaemonServiceInfo("com.example.webd").isNull());  // nothing runs below another root
}

TEST_F(LaunchDaemons, MakeNoUnitOfWhatIsNotTheirs) {
  const auto jobOf = [](const PlistValue& label) {
    return PlistValue::mutableDictionaryOf(
        {{"Label", label}, {"ProgramArguments", PlistValue::arrayOf({"/bin/true"})}});
  };
  const std::string path = root_ / "job.plist";
  const std::string folder = root_ / "etc/systemd/system/";
  for (const std::string& label : {std::string("../x"), std::string("/"), std::string("/x"), std::string("x/y"),
                                   std::string("-x"), std::string(".x"), std::string(), std::string("a b"),
                                   std::string("*"), std::string("a\nb"), std::string(248, 'a')}) {
    writeJob(path, jobOf(label));
    EXPECT_FALSE(SetLaunchDaemonServiceState(path, true)) << label;
    EXPECT_FALSE(GetLaunchDaemonServiceState(label)) << label;
  }
  EXPECT_FALSE(std::filesystem::exists(folder));

  // Others could have written it.
  writeJob(path, jobOf("foreign"));
  std::filesystem::permissions(path, std::filesystem::perms(0666));
  EXPECT_FALSE(SetLaunchDaemonServiceState(path, true));
  EXPECT_FALSE(std::filesystem::exists(folder));
  // Then it does not say which of the units that are there is switched, either.
  writeFile(folder + "foreign.service", "[Service]\nExecStart=/bin/false\n[Install]\nWantedBy=multi-user.target\n");
  for (const bool enable : {true, false}) EXPECT_FALSE(SetLaunchDaemonServiceState(path, enable));
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  EXPECT_TRUE(SetLaunchDaemonServiceState(path, true));

  // Units from elsewhere stay, and masked ones stay off.
  const std::string unit = "[Service]\nExecStart=/bin/false\n[Install]\nWantedBy=multi-user.target\n";
  writeFile(folder + "maild.service", unit);
  writeJob(path, jobOf("maild"));
  EXPECT_TRUE(SetLaunchDaemonServiceState(path, true));
  EXPECT_EQ(readFile(folder + "maild.service"), unit);
  std::filesystem::create_symlink("/dev/null", folder + "masked.service");
  writeJob(path, jobOf("masked"));
  EXPECT_FALSE(SetLaunchDaemonServiceState(path, true));
  EXPECT_TRUE(std::filesystem::is_symlink(folder + "masked.service"));
}

TaskOutcome runTool(Task task) {
  task.output = task.errors = TaskStream::captured;
  task.timeLimit = std::chrono::seconds(60);
  return TaskRunner::current().run(task).value_or(TaskOutcome{-1, "not started", false, false});
}

/// What systemd itself reads in a unit file, as "systemd --test" tells it: settings of the service, its command last.
std::string readBySystemd(const TemporaryFolder& folder, const std::string& unit) {
  writeFile(folder / "units/job.service", unit + "[Unit]\nDefaultDependencies=no\n");
  writeFile(folder / "run/empty", "");
  Task task;
  task.path = "/lib/systemd/systemd";
  if (::geteuid() == 0) {  // which it refuses to be
    task.path = "/usr/bin/setpriv";
    task.arguments = {"--reuid=65534", "--regid=65534", "--clear-groups", "/lib/systemd/systemd"};
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    EXPECT_EQ(::chown((folder / "run").c_str(), 65534, 65534), 0);
  }
  task.arguments.insert(task.arguments.end(), {"--test", "--user", "--unit=job.service", "--no-pager"});
  task.environment = {{"SYSTEMD_UNIT_PATH=" + (folder / "units"), "XDG_RUNTIME_DIR=" + (folder / "run"),
                       "HOME=" + (folder / "run"), "LC_ALL=C"}};
  std::istringstream lines(runTool(task).output);
  std::string found;
  for (std::string line; found.find("Command") == std::string::npos && std::getline(lines, line);) {
    if (line.ends_with(" Unit job.service:")) found.clear();
    for (const char* key : {"Restart: ", "WorkingDirectory: ", "Environment: ", "Command Line: "})
      if (const auto at = line.find(key); at != std::string::npos) found += line.substr(at) + "\n";
  }
  return found;
}

TEST(SystemdUnit, ReadsBackTheVeryWords) {
  const TemporaryFolder folder;
  const std::string program = folder / "pro$g ram%n;";
  writeProgram(program, "");
  const PlistValue job = PlistValue::dictionaryOf(
      {{"Label", "a\\"},
       {"Program", program},
       {"ProgramArguments",
        PlistValue::arrayOf({"na$me %o", "", "%n%%", "$HOME ${HOME} $$", "a\\n\\", "\"q\" 'r'", ";",
                             "\n[Service]\nUser=root", "\t\x01\x7F", "caf\xC3\xA9", "\xFF\xFE", "# no comment", " "})},
       {"EnvironmentVariables", PlistValue::dictionaryOf({{"A", " %n \"$B\"\\"}, {"B", ""}, {"C", "\tx\ny"}})},
       {"WorkingDirectory", "/50% \"of\" it"},
       {"KeepAlive", PlistValue::dictionaryOf({{"SuccessfulExit", false}})}});
  const auto unit = detail::unitText(job, "# test");
  ASSERT_TRUE(unit);
  EXPECT_EQ(readBySystemd(folder, *unit), R"(Restart: on-failure
WorkingDirectory: /50% "of" it
Environment: A= %n "$B"\
Environment: B=
Environment: C=	x
Command Line: "na\$me %o" "" %n%% "\$HOME \${HOME} \$\$" "a\\n\\" "\"q\" 'r'" ";" )"
                                          R"("\n[Service]\nUser=root" "\t\001\177" café "\377\376" "# no comment" " "
)");
  Task verify;
  verify.path = "/usr/bin/systemd-analyze";
  verify.arguments = {"verify", "--man=no", folder / "units/job.service"};
  const TaskOutcome verified = runTool(verify);
  EXPECT_EQ(verified.status, 0) << verified.output;
  std::filesystem::remove(program);
  EXPECT_NE(runTool(verify).status, 0);  // it had found that very program
}

TEST(SystemdUnit, IsNotMadeOfWhatItCannotTell) {
  const PlistValue good =
      PlistValue::dictionaryOf({{"Label", "a"}, {"ProgramArguments", PlistValue::arrayOf({"/bin/true"})}});
  ASSERT_TRUE(detail::unitText(good, "#"));
  const std::string nul("/\0", 2);
  const struct {
    const char* key;
    PlistValue value;
  } cases[] = {
      {"Label", 7},
      {"Label", "a@"},
      {"ProgramArguments", PlistValue::arrayOf({})},
      {"ProgramArguments", PlistValue::arrayOf({"true"})},
      {"ProgramArguments", PlistValue::arrayOf({"-/bin/true"})},
      {"ProgramArguments", PlistValue::arrayOf({"/bin/true", 7})},
      {"ProgramArguments", PlistValue::arrayOf({"/bin/true", nul})},
      {"ProgramArguments", PlistValue::arrayOf({"/bin/true", std::string(1 << 20, 'x')})},
      {"Program", "/bin/a\"b"},
      {"EnvironmentVariables", PlistValue::dictionaryOf({{"A B", "x"}})},
      {"EnvironmentVariables", PlistValue::dictionaryOf({{"A", "\xFF"}})},
      {"EnvironmentVariables", PlistValue::dictionaryOf({{"A", 1}})},
      {"WorkingDirectory", "relative"},
      {"WorkingDirectory", "/a\nUser=root"},
      {"RootDirectory", "/ends in \\"},
      {"RootDirectory", nul},
      {"UserName", "a\nb"},
      {"UserName", "%u"},
      {"UserName", ""},
      {"GroupName", 0},
      {"StandardOutPath", "/a "},
      {"KeepAlive", PlistValue::dictionaryOf({{"PathState", PlistValue::dictionaryOf({})}})},
      {"KeepAlive", "yes"},
      {"StartInterval", 60},
      {"Sockets", PlistValue::dictionaryOf({})},
  };
  for (const auto& [key, value] : cases) {
    const PlistValue job = good.mutableCopy();
    ASSERT_TRUE(PlistValue(job).set(key, value));
    EXPECT_FALSE(detail::unitText(job, "#")) << key << " = " << value.description().substr(0, 80);
  }
}

TEST(SystemdServices, AskTheRunningManager) {
  const TemporaryFolder folder;
  writeProgram(folder / "systemctl", "printf '%s|' \"$@\" >>" + (folder / "calls") + "\ncase \"$*\" in\n" + R"(
*is-enabled*) echo disabled; exit 1;;
*endless*) exec yes;;
*hanging*) exec sleep 60;;
*absent*) printf 'Id=absent.service\nLoadState=not-found\n';;
*show*) cat <<'END'
Restart=always
MainPID=42
ExecMainCode=2
ExecMainStatus=9
ExecStart={ path=/usr/sbin/maild ; argv[]=/usr/sbin/maild -c /etc/x ; ignore_errors=no ; start_time=[n/a] ; pid=42 }
ExecStart={ path=/second ; argv[]=/second ; ignore_errors=no }
User=mail
Id=maild.service
LoadState=loaded
ActiveState=active
UnitFileState=enabled
Description=Id=other.service

Id=gone.service
LoadState=not-found

Id=web.example.service
LoadState=loaded
Restart=no
MainPID=0
ExecStart={ path=/bin/sh ; argv[]=/bin/sh -c a

Id=sshd.service
LoadState=loaded ; ignore_errors=no ; pid=0 }
ExecMainCode=1
ExecMainStatus=3
ActiveState=inactive
END
;;
esac
)");
  detail::SystemdServices systemd({.tool = folder / "systemctl", .runningMark = folder.path()});
  const ScopedOverride<ServiceManager> manager(systemd);
  const PlistValue all = GetLaunchDaemonAllServicesInfo();
  const PlistValue script = PlistValue::arrayOf({"/bin/sh", "-c", "a\n\nId=sshd.service\nLoadState=loaded"});
  EXPECT_EQ(all, PlistValue::dictionaryOf(
                     {{"maild", PlistValue::dictionaryOf(
                                    {{"Label", "maild"},
                                     {"LastExitStatus", 9},
                                     {"PID", 42},
                                     {"OnDemand", false},
                                     {"Program", "/usr/sbin/maild"},
                                     {"ProgramArguments", PlistValue::arrayOf({"/usr/sbin/maild", "-c", "/etc/x"})},
                                     {"UserName", "mail"},
                                     {"ActiveState", "active"},
                                     {"UnitFileState", "enabled"}})},
                      {"web.example", PlistValue::dictionaryOf({{"Label", "web.example"},
                                                                {"LastExitStatus", 3 << 8},
                                                                {"OnDemand", true},
                                                                {"Program", "/bin/sh"},
                                                                {"ProgramArguments", script},
                                                                {"ActiveState", "inactive"}})}}))
      << all.description();
  EXPECT_EQ(GetLaunchDaemonServiceInfo("maild").get("PID"), PlistValue(42));
  for (const char* label : {"absent", "../x", "*"}) EXPECT_TRUE(GetLaunchDaemonServiceInfo(label).isNull()) << label;
  {
    detail::SystemdServices impatient(
        {.tool = folder / "systemctl", .runningMark = folder.path(), .askLimit = std::chrono::milliseconds(300)});
    const ScopedOverride<ServiceManager> other(impatient);
    const auto start = std::chrono::steady_clock::now();
    for (const char* label : {"endless", "hanging"}) EXPECT_TRUE(GetLaunchDaemonServiceInfo(label).isNull()) << label;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  }
  std::filesystem::remove(folder / "calls");
  EXPECT_TRUE(SetLaunchDaemonServiceState("maild", true));
  EXPECT_EQ(readFile(folder / "calls"),
            "--no-pager|--no-ask-password|is-enabled|--|maild.service|"
            "--no-pager|--no-ask-password|enable|--now|--|maild.service|");
}

TEST(LaunchData, IsConvertedByItsKind) {
  using D = LaunchData;
  const struct {
    LaunchData data;
    PlistValue value;
  } cases[] = {
      {{D::DescriptorNumber{3}}, 3},
      {{std::numeric_limits<std::int64_t>::min()}, std::numeric_limits<std::int64_t>::min()},
      {{0.5}, 0.5},
      {{true}, true},
      {{std::string("caf\xC3\xA9")}, "caf\xC3\xA9"},
      {{std::string("\xFF")}, {}},
      {{D::Opaque{std::string("\0\xFF", 2)}}, PlistData{{"\0\xFF", 2}}},
      {{D::ErrorNumber{2}}, 2},
      {{D::Port{0x01010101}}, PlistData{"\1\1\1\1"}},
      {{}, {}},
      {{D::Array{{true}, {}, {D::Array{}}}}, PlistValue::arrayOf({true, PlistValue::arrayOf({})})},
      {{D::Dictionary{{"a", {std::int64_t{1}}}, {"b", {}}, {"c", {D::Dictionary{}}}, {"a", {std::int64_t{2}}}}},
       PlistValue::dictionaryOf({{"a", 2}, {"c", PlistValue::dictionaryOf({})}})},
  };
  for (const auto& [data, value] : cases) {
    const PlistValue converted = _CFCopyLaunchData(&data);
    EXPECT_EQ(converted, value) << converted.description();
    EXPECT_EQ(converted.kind(), value.kind());
  }
  EXPECT_TRUE(_CFCopyLaunchData(nullptr).isNull());

  const PlistValue target = PlistValue::mutableDictionaryOf({{"a", 1}, {"b", 2}});
  const LaunchData one{std::int64_t{7}};
  const LaunchData none;
  _launch_dict_callback(&one, "c", target);
  _launch_dict_callback(&none, "a", target);
  _launch_dict_callback(nullptr, "b", target);
  EXPECT_EQ(target, PlistValue::dictionaryOf({{"b", 2}, {"c", 7}}));

  LaunchData deep{true};
  for (int i = 0; i < 2000; ++i) {
    LaunchData::Array around;
    around.push_back(std::move(deep));
    deep.value = std::move(around);
  }
  EXPECT_TRUE(writeXmlPropertyList(_CFCopyLaunchData(&deep)));
}

TEST(LaunchDaemonArguments, AreChangedInPlaceOfTheOldOnes) {
  const TemporaryFolder folder;
  const std::string path = folder / "job.plist";
  const PlistValue before = PlistValue::arrayOf({"/bin/old"});
  const PlistValue after = PlistValue::arrayOf({"/bin/new", "-v"});
  const PlistValue job = PlistValue::dictionaryOf({{"z", 1}, {"ProgramArguments", before}, {"Label", "a"}});
  for (const bool binary : {false, true}) {
    writeFile(path, (binary ? writeBinaryPropertyList(job) : writeXmlPropertyList(job)).value());
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(path), before);
    EXPECT_TRUE(SetLaunchDaemonServiceConfigArgs(path, after));
    EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(path), after);
    const PlistValue expected = PlistValue::dictionaryOf({{"z", 1}, {"ProgramArguments", after}, {"Label", "a"}});
    EXPECT_EQ(readFile(path), binary ? writeBinaryPropertyList(expected) : writeXmlPropertyList(expected));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0640));
  }
  const std::string kept = readFile(path);
  EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(path, {}));
  EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs({}, after));
  EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(path, "/bin/new"));
  EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(path, PlistValue::arrayOf({std::string("\xFF")})));
  EXPECT_EQ(readFile(path), kept);
  for (const char* text : {"[]", "<plist><array/></plist>", "<plist><dict><key>Label</key></dict></plist>"}) {
    writeFile(folder / "other", text);
    EXPECT_TRUE(GetLaunchDaemonServiceConfigArgs(folder / "other").isNull()) << text;
    EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(folder / "other", after)) << text;
    EXPECT_EQ(readFile(folder / "other"), text);
  }
  EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(folder / "absent", after));
  EXPECT_FALSE(std::filesystem::exists(folder / "absent"));
}

TEST(FileDates, AreOfThePathItselfInWholeSeconds) {
  const TemporaryFolder folder;
  writeFile(folder / "file", "");
  std::filesystem::create_symlink("file", folder / "link");
  for (const timespec& time : {timespec{1'700'000'000, 999'999'999}, timespec{-5, 1}, timespec{20'000'000'000, 0}}) {
    const timespec times[] = {time, time};
    const timespec others[] = {{1, 0}, {1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (folder / "link").c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    ASSERT_EQ(::utimensat(AT_FDCWD, (folder / "file").c_str(), others, 0), 0);
    struct stat found {};
    ASSERT_TRUE(_statStructForFileAtPath(folder / "link", &found));
    EXPECT_TRUE(S_ISLNK(found.st_mode));
    if (found.st_mtim.tv_sec != time.tv_sec) continue;  // the file system cannot hold it
    EXPECT_EQ(modificationDateAtPath(folder / "link"), PlistDate{static_cast<double>(time.tv_sec)});
  }
  struct stat untouched {};
  for (const std::string& path : {folder / "absent", std::string(), std::string("/\0", 2)}) {
    EXPECT_TRUE(modificationDateAtPath(path).isNull());
    EXPECT_FALSE(_statStructForFileAtPath(path, &untouched));
  }
  EXPECT_FALSE(_statStructForFileAtPath(folder / "file", nullptr));

  const PlistValue one = PlistDate{1};
  const PlistValue two = PlistDate{2};
  EXPECT_FALSE(ModDateIsOld({}, {}));
  EXPECT_TRUE(ModDateIsOld(one, {}));
  EXPECT_TRUE(ModDateIsOld({}, one));
  EXPECT_FALSE(ModDateIsOld(one, PlistDate{1}));
  EXPECT_TRUE(ModDateIsOld(one, two));
  EXPECT_TRUE(ModDateIsOld(two, one));
}

}  // namespace
}  // namespace ostrel
