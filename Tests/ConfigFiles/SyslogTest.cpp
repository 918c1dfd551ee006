// The system logger's configuration file: its selectors, our own lines, and a real logger that reads them.
#include "ConfigFiles/SyslogUtilities.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "Platform/HostRoot.h"
#include "Platform/ProcessTable.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::writeFile;
using Utilities = SyslogUtilities;

/// Nobody runs; `named` is what the search for a name tells.
struct NoProcesses final : ProcessTable {
  std::optional<std::vector<ProcessEntry>> snapshot() override { return std::vector<ProcessEntry>(); }
  std::optional<ProcessEntry> find(pid_t) override { return std::nullopt; }
  pid_t firstNamed(std::string_view) override { return named; }
  pid_t named = -1;
};

class Syslog : public ::testing::Test {
 protected:
  Utilities reading(std::string_view text) {
    writeFile(path_, text);
    return Utilities(PlistValue(path_));
  }
  const testing::TemporaryFolder folder_;
  const ScopedHostRoot root_{folder_.path()};
  const std::string path_ = folder_ / "etc/syslog.conf";
  testing::RecordingLog log_;
  const ScopedOverride<SystemLog> logging_{log_};
};

TEST(SyslogNames, AreFoundBothWays) {
  const struct {
    PlistValue name;
    std::int32_t level, facility;
  } numbers[] = {{"*", 7, 1016},       {"debug", 7, -1},    {"EMERG", 0, -1},      {"error", 3, -1},
                 {"SECURITY", -1, 32}, {"kern", -1, 0},     {"", -1, -1},          {"mai", -1, -1},
                 {"mail.", -1, -1},    {"LocaL7", -1, 184}, {PlistValue(), -1, -1}};
  for (const auto& [name, level, facility] : numbers) {
    EXPECT_EQ(Utilities::syslogLevelForString(name), level) << name.description();
    EXPECT_EQ(Utilities::syslogFacilityForString(name), facility) << name.description();
  }
  const struct {
    std::int32_t number;
    PlistValue level, facility;
  } names[] = {{0, "emerg", "kern"}, {4, "warn", {}}, {7, "*", {}}, {16, "none", "mail"},
               {32, {}, "auth"},     {1016, {}, "*"}, {-1, {}, {}}, {9, {}, {}}};
  for (const auto& [number, level, facility] : names) {
    EXPECT_EQ(Utilities::stringForSyslogLevel(number), level) << number;
    EXPECT_EQ(Utilities::stringForSyslogFacility(number), facility) << number;
  }
  EXPECT_EQ(_SU_prioritynames[12].name, nullptr);
  EXPECT_EQ(_SU_facilitynames[27].name, nullptr);
}

TEST_F(Syslog, ReadsSelectors) {
  Utilities utilities = reading(
      "# mail.* /var/log/comment\n"
      "mail.info;mail.none\t/var/log/mail\n"
      "  news,UUCP.Err;nonsense.info;news.nonsense;,lpr.warn;kern;cron.=info;ftp.a.b /var/log/more and more # "
      "trailing\n"
      "daemon.* /dev/console\ndaemon.crit|/no/action\nlocal0.debug\n"
      "daemon.notice /var/log/daemon#cut\r\n*.emerg *\nmark.debug /var/log/mark\nuser.info /var/log/\xC3\xA9\n"
      "\rlocal7.info /var/log/l7");
  const struct {
    const char* facility;
    PlistValue level;
    std::vector<PlistValue> actions;
  } cases[] = {
      {"mail", "none", {"/var/log/mail", "/var/log/mail"}},
      {"news", "err", {"/var/log/more"}},
      {"uucp", "err", {"/var/log/more"}},
      {"lpr", "warn", {"/var/log/more"}},
      {"kern", {}, {}},
      {"cron", {}, {}},
      {"ftp", {}, {}},
      {"daemon", "notice", {"/dev/console", "/var/log/daemon"}},
      {"local0", {}, {}},
      {"*", "debug", {"*", "/var/log/mark"}},
      {"mark", "debug", {"*", "/var/log/mark"}},
      {"user", "info", {"/var/log/\xC3\xA9"}},
      {"local7", "info", {"/var/log/l7"}},
      {"unknown", {}, {}},
  };
  for (const auto& [facility, level, actions] : cases) {
    EXPECT_EQ(utilities.levelNameForFacilityName(facility), level) << facility;
    const PlistValue found = utilities.actionsForFacility(Utilities::syslogFacilityForString(facility), 0);
    EXPECT_EQ(found.isNull(), actions.empty()) << facility;
    EXPECT_EQ(std::vector(found.elements().begin(), found.elements().end()), actions) << facility;
  }
  EXPECT_EQ(utilities.actionsForFacility(16, 7), PlistValue::arrayOf({"/var/log/mail"})) << "none is 16";
  EXPECT_TRUE(utilities.actionsForFacility(16, 17).isNull());
  EXPECT_EQ(utilities.levelForFacility(16), 16);
  EXPECT_EQ(utilities.levelForFacility(208), -1);
  const std::string text = utilities.description();
  EXPECT_TRUE(
      text.starts_with("<SyslogUtilities>: [" + path_ +
                       "]\n\t* = <_Selector>: [emerg] - (*)\n\t* = <_Selector>: [*] - (/var/log/mark)\n\tlocal7 ="))
      << text;
  EXPECT_TRUE(
      text.ends_with("\tmail = <_Selector>: [none] - (/var/log/mail)\n\tuser = <_Selector>: [info] - "
                     "(/var/log/\xC3\xA9)\n"))
      << text;
}

TEST_F(Syslog, AddsAndChangesLinesOfItsOwn) {
  NoProcesses nobody;
  const ScopedOverride<ProcessTable> processes(nobody);
  const std::string before = "\n\nmail.info\t/var/log/mail\n\n# end\n\n\n";
  Utilities utilities = reading(before);
  const auto text = [&] { return utilities.change()->newText(); };

  EXPECT_TRUE(utilities.setLevelName("DEBUG", "mail", "/var/log/own"));
  EXPECT_EQ(text(), "\n\nmail.info\t/var/log/mail\n\n# end\nmail.*\t\t\t\t\t\t\t/var/log/own\n");
  EXPECT_EQ(log_.lines().back(), "new syslog line:\nmail.*\t\t\t\t\t\t\t/var/log/own\n");
  EXPECT_EQ(utilities.levelForFacility(16), 7) << "our line decides";
  EXPECT_FALSE(utilities.setLevelName("debug", "mail", "/var/log/own"));
  EXPECT_TRUE(utilities.setLevelName("err", "mail", "/var/log/own"));
  EXPECT_EQ(utilities.levelNameForFacilityName("mail"), PlistValue("err"));
  EXPECT_TRUE(utilities.setLevelName("none", "remoteauth", "@host"));
  EXPECT_TRUE(utilities.setLevelName("info", "*", "/var/log/all"));
  const std::string made =
      "\n\nmail.info\t/var/log/mail\n\n# end\nmail.err\t\t\t\t\t\t/var/log/own\n"
      "remoteauth.none\t\t\t\t\t\t@host\n*.info\t\t\t\t\t\t\t/var/log/all\n";
  EXPECT_EQ(text(), made);
  EXPECT_EQ(readFile(path_), before) << "nothing is written before recycle";
  EXPECT_NE(utilities.change()->unifiedDiff().find("+mail.err"), std::string::npos);

  for (const PlistValue& action : {PlistValue(""), PlistValue(5), PlistValue("/x\n*.* /y"), PlistValue("/\xC3\xA9")})
    EXPECT_FALSE(utilities.setLevel(3, 16, action)) << action.description();
  EXPECT_FALSE(utilities.setLevel(9, 16, "/x"));
  EXPECT_FALSE(utilities.setLevel(3, 208, "/x"));
  EXPECT_FALSE(utilities.setLevelName("loud", "mail", "/x"));

  EXPECT_FALSE(utilities.recycle()) << "there is no logger";
  EXPECT_EQ(readFile(path_), made) << "but the file is written";

  EXPECT_TRUE(utilities.removeActionsForFacilityName("mail"));
  EXPECT_EQ(utilities.levelForFacility(16), -1) << "what was read is forgotten, too";
  EXPECT_FALSE(utilities.removeActionsForFacility(16));
  EXPECT_TRUE(utilities.setLevel(0, 1016, {})) << "no action removes";
  EXPECT_EQ(text(), "\n\nmail.info\t/var/log/mail\n\n# end\nremoteauth.none\t\t\t\t\t\t@host\n");

  Utilities again{PlistValue(path_)};
  EXPECT_TRUE(again.setLevelName("err", "mail", "/var/log/own")) << "a line that was read is nobody's own";
  EXPECT_TRUE(again.removeActionsForFacilityName("mail"));
  EXPECT_EQ(again.change()->newText(), made) << "nor is it removed instead of the new one";
}

TEST_F(Syslog, NeverReplacesWhatItCouldNotReadOrTell) {
  NoProcesses nobody;
  const ScopedOverride<ProcessTable> processes(nobody);
  const struct {
    const char* what;
    std::string text;
  } cases[] = {{"not UTF-8", "mail.info /var/log/x\xFF\n"},
               {"not ASCII", "# \xC3\xA9\nmail.info /var/log/x\n"},
               {"huge", std::string(std::size_t{5} << 20U, '#')}};
  for (const auto& [what, text] : cases) {
    Utilities utilities = reading(text);
    EXPECT_TRUE(utilities.setLevel(3, 16, "/var/log/own")) << what;
    EXPECT_FALSE(utilities.change()) << what;
    EXPECT_FALSE(utilities.recycle()) << what;
    EXPECT_EQ(readFile(path_), text) << what;
  }
  std::filesystem::remove(path_);
  Utilities utilities;
  EXPECT_EQ(utilities.levelForFacility(16), -1);
  EXPECT_TRUE(utilities.setLevel(3, 16, "/var/log/own"));
  EXPECT_TRUE(utilities.change()->makesFile());
  nobody.named = 4711;
  EXPECT_TRUE(utilities.recycle()) << "a logger is known, though it cannot be signalled";
  EXPECT_EQ(readFile(path_), "mail.err\t\t\t\t\t\t/var/log/own\n") << "the default path is below the host root";
  std::filesystem::remove(path_);
  std::filesystem::create_directories(path_);
  EXPECT_FALSE(utilities.recycle()) << "what was not written is not told to the logger";
}

TEST_F(Syslog, ALoggerFollowsTheChangedFile) {
  const std::string logger = "/usr/sbin/syslogd";
  if (access(logger.c_str(), X_OK) != 0) GTEST_SKIP() << "another system logger is installed";
  const std::string socket = folder_ / "log.socket";
  writeFile(path_, "local3.err\t" + (folder_ / "errors") + "\n");
  std::filesystem::create_directories(folder_ / "var/run");
  testing::ChildProcess daemon({logger, "-n", "--no-klog", "--no-forward", "-m", "0", "-f", path_, "-D",
                                folder_ / "none", "-p", socket, "-P", folder_ / "var/run/syslogd.pid"},
                               folder_ / "output", folder_ / "output");
  const auto send = [&](const std::string& priority, const std::string& message) {
    return testing::runProgram({"/usr/bin/logger", "-u", socket, "-p", priority, message}).status == 0;
  };
  const auto arrives = [&](const std::string& file, const char* message) {
    return testing::eventually([&] { return readFile(file).find(message) != std::string::npos; });
  };
  ASSERT_TRUE(testing::eventually([&] { return std::filesystem::exists(socket); })) << readFile(folder_ / "output");
  ASSERT_TRUE(testing::eventually([&] { return readFile(folder_ / "var/run/syslogd.pid").ends_with('\n'); }));
  ASSERT_TRUE(send("local3.err", "before"));
  ASSERT_TRUE(arrives(folder_ / "errors", "before"));
  ASSERT_TRUE(send("local3.info", "unheard"));

  Utilities utilities;
  ASSERT_TRUE(utilities.setLevelName("info", "local3", folder_ / "own"));
  ASSERT_TRUE(utilities.recycle());
  // The signal is taken between two messages: send until one arrives.
  ASSERT_TRUE(testing::eventually([&] {
    return send("local3.info", "after") && readFile(folder_ / "own").find("after") != std::string::npos;
  })) << readFile(folder_ / "output");
  EXPECT_EQ(readFile(folder_ / "own").find("unheard"), std::string::npos);
  EXPECT_EQ(readFile(folder_ / "errors").find("after"), std::string::npos);
  ASSERT_TRUE(send("local3.err", "still"));
  EXPECT_TRUE(arrives(folder_ / "errors", "still")) << "the line that was there is still heeded";
}

}  // namespace
}  // namespace ostrel
