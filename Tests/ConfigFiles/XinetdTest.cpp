// xinetd service files below a temporary host root, and a real xinetd that reads them.
#include "ConfigFiles/XinetdUtilities.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "DaemonServices/ProcessControl.h"
#include "Platform/HostRoot.h"
#include "Platform/ProcessSignals.h"
#include "Support/Fakes.h"
#include "Support/Loopback.h"
#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel {
namespace {

using ::testing::ElementsAre;
using testing::readFile;
using testing::writeFile;

class Xinetd : public ::testing::Test {
 protected:
  XinetdUtilities utilities(const PlistValue& service = "ftp") { return {service, "test"}; }
  /// The log lines since the last call, each behind its priority.
  std::vector<std::string> logged() {
    std::vector<std::string> lines;
    const auto records = log_.records();
    for (; seen_ < records.size(); ++seen_)
      lines.push_back(std::to_string(records[seen_].priority) + " " + records[seen_].message);
    return lines;
  }
  const testing::TemporaryFolder folder_;
  const ScopedHostRoot root_{folder_.path()};
  const std::string path_ = folder_ / "etc/xinetd.d/ftp";
  testing::RecordingLog log_;
  const ScopedOverride<SystemLog> logging_{log_};
  std::size_t seen_ = 0;
};

constexpr const char* twoServices =
    "# comment\nservice tftp\n{\n\tport = 69\n}\n\nservice ftp\n\n  {\n#\tport = 1\n\tport\t= 21 \n\tflags += REUSE\n"
    "\tflags -= IPv6\n\tempty =\n}\nservice ftp\n{\n\tlate = yes\n\tport = 22\n}\n";

TEST_F(Xinetd, ReadsTheFirstEntryOfTheService) {
  writeFile(path_, twoServices);
  const struct {
    const char* key;
    const char* value;
  } cases[] = {{"port", "21"}, {"flags", "REUSE"}, {"late", "yes"}, {"empty", ""}, {"absent", ""},
               {"Port", ""},   {"#", ""},          {"}", ""},       {"", ""}};
  for (const auto& [key, expected] : cases) {
    PlistValue value;
    EXPECT_TRUE(utilities().getValueForKey(key, &value)) << key;
    EXPECT_EQ(value, PlistValue(expected)) << key;
  }
  const struct {
    const char* text;
    const char* value;
  } texts[] = {{"service ftp {\n port = 1\n}\n", "1"},
               {"service ftp { port = 2\n port = 1\n}", "1"},
               {"service tftp {\n port = 1\n}\n", ""},
               {"service ftp\n{\n port = 1", "1"},
               {"service ftp\r\n{\r\n port = 1\r\n", ""},
               {"service ftp\n port = 1\n", ""},
               {"service\nservice FTP\n{\nport = 1\n}", ""},
               {"service ftp\n{\n} \nport = 1\n", ""},
               {"service ftp\nservice tftp {\n{\nport = 1\n}\n", "1"},
               {"service ftp\n{\nport\t=\t\tone two \t\n}", "one two"}};
  for (const auto& [text, expected] : texts) {
    writeFile(path_, text);
    PlistValue value;
    EXPECT_TRUE(utilities().getValueForKey("port", &value)) << text;
    EXPECT_EQ(value, PlistValue(expected)) << text;
  }
}

TEST_F(Xinetd, ReplacesAddsAndRemovesEntries) {
  const std::string one = "# c\nservice ftp\n{\n\tport\t+= 21\n\n\tport = 22\n}\n";
  const std::string none = "service ftp\n  {\n}";
  const std::string inLine = "service ftp {\n\tport = 21\n}\n";
  const std::string two = "service ftp\n{ \n\ta = 1\n} \nservice tftp\n{ \n\tport = 69\n} \n";
  const struct {
    const char* what;
    std::string text;
    const char* value;  // null: remove
    std::string result;
  } cases[] = {
      {"replaced once, operator kept", one, "5 6", "# c\nservice ftp\n{  \n\tport\t+= 5 6\n\n\tport = 22\n}  \n"},
      {"equal: not even padded", one, "21", one},
      {"added", none, "5", "service ftp\n  {\n\tport\t= 5\n}"},
      {"brace on the header's line", inLine, "5", "service ftp {\n\tport = 21\n}  \n"},
      {"no such service", "service tftp\n{ \n\tport = 1\n} \n", "5", "service tftp\n{ \n\tport = 1\n} \n"},
      {"after an addition all is the same block", two, "5",
       "service ftp\n{ \n\ta = 1\n\tport\t= 5\n}\nservice tftp\n{ \n\tport\t= 5\n} \n"},
      {"equal in a later block", two, "69", two},
      {"removed, all of them", one, nullptr, "# c\nservice ftp\n{  \n\n}  \n"},
      {"nothing to remove", none, nullptr, "service ftp\n  {\n}  "},
      {"nothing to remove, and all is the same block", two, nullptr,
       "service ftp\n{ \n\ta = 1\n} \nservice tftp\n{ \n} \n"},
      {"only of this service", "service ftp\n{ \nport = 1\n} \nservice x\n{ \nport = 2\n} \n", nullptr,
       "service ftp\n{ \n} \nservice x\n{ \nport = 2\n} \n"},
      {"not removed", inLine, nullptr, "service ftp {\n\tport = 21\n}  \n"},
      {"the next brace is the first header's", "service ftp {\n} x\nservice tftp\n{ \n} \n", "5",
       "service ftp {\n} x\nservice tftp\n{ \n\tport\t= 5\n}\n"},
      {"empty", "", "5", ""},
  };
  for (const auto& [what, text, value, result] : cases) {
    writeFile(path_, text);
    XinetdUtilities editor = utilities();
    const auto change =
        value == nullptr ? editor.changeWithoutEntryForKey("port") : editor.changeOfEntryForKey("port", value);
    ASSERT_TRUE(change) << what;
    EXPECT_EQ(change->newText(), result) << what;
    EXPECT_EQ(readFile(path_), text) << what << ": a dry run writes nothing";
    EXPECT_TRUE(logged().empty());
    // Another name keeps the old file's bytes: a replaced file is another one.
    const std::string old = folder_ / "old";
    std::filesystem::remove(old);
    std::filesystem::create_hard_link(path_, old);
    EXPECT_TRUE(value == nullptr ? editor.removeEntryForKey("port") : editor.setOrAddEntryForKey("port", value));
    EXPECT_EQ(readFile(path_), result) << what;
    EXPECT_EQ(std::filesystem::equivalent(path_, old), std::string_view(what).starts_with("equal")) << what;
    std::vector<std::string> expected;
    if (std::string_view(what).starts_with("removed")) expected.assign(2, "6 test:Info:Deleting entry for key 'port'");
    if (std::string_view(what).starts_with("equal"))
      expected = {format("6 test:Info:New setting equals old setting for key 'port' value '%@'", value)};
    const std::vector<std::string> lines = logged();
    EXPECT_EQ(expected.empty() ? expected : lines, expected) << what;
  }
}

TEST_F(Xinetd, NeverWritesWhatItCannotReadOrTell) {
  const std::string text = "service ftp\n{ \n\tport = 21\n} \n";
  writeFile(path_, text);
  XinetdUtilities editor = utilities();
  for (const PlistValue& wrong : {PlistValue(), PlistValue(5), PlistValue("a\n\tserver = /bin/sh"),
                                  PlistValue(std::string_view("a\0", 2)), PlistValue("\xFF")}) {
    EXPECT_FALSE(editor.setOrAddEntryForKey(wrong, "1")) << wrong.description();
    EXPECT_FALSE(editor.setOrAddEntryForKey("port", wrong)) << wrong.description();
    EXPECT_EQ(editor.removeEntryForKey(wrong), wrong.isString()) << wrong.description();
  }
  for (const char* noKey : {"", "two words", "}", "{x", "#port"})
    EXPECT_FALSE(editor.setOrAddEntryForKey(noKey, "1")) << noKey;
  PlistValue value = "before";
  EXPECT_FALSE(editor.getValueForKey({}, &value));
  EXPECT_FALSE(editor.getValueForKey("port", nullptr));
  EXPECT_EQ(readFile(path_), text);

  writeFile(folder_ / "etc/passwd", text);
  for (const PlistValue& name : {PlistValue("../passwd"), PlistValue(".."), PlistValue(""), PlistValue("absent"),
                                 PlistValue(), PlistValue(std::string_view("ftp\0", 4))}) {
    XinetdUtilities other = utilities(name);
    other.setServiceName("ftp");
    EXPECT_FALSE(other.getValueForKey("port", &value)) << name.description();
    EXPECT_FALSE(other.setOrAddEntryForKey("port", "1")) << name.description();
    EXPECT_FALSE(other.removeEntryForKey("port")) << name.description();
  }
  EXPECT_EQ(readFile(folder_ / "etc/passwd"), text);
  EXPECT_EQ(value, PlistValue("before"));

  const std::string binary = text + "\xFF";
  writeFile(path_, binary);
  EXPECT_FALSE(editor.setOrAddEntryForKey("port", "1"));
  EXPECT_EQ(readFile(path_), binary);
}

TEST_F(Xinetd, ConvertsArguments) {
  const auto array = [](std::initializer_list<PlistValue> elements) { return PlistValue::arrayOf(elements); };
  const struct {
    const char* text;
    PlistValue dictionary;
    const char* back;
  } cases[] = {
      {"/usr/sbin/ftpd -d -p 80 -x1 -x2",
       PlistValue::dictionaryOf({{"path", "/usr/sbin/ftpd"}, {"d", true}, {"p", "80"}, {"x", array({"1", "2"})}}),
       "/usr/sbin/ftpd -d -p 80 -x 1 -x 2 "},
      {"-a\t-a  -b value", PlistValue::dictionaryOf({{"a", true}, {"b", "value"}}), "-a -b value "},
      {"-x1 -x -x 3", PlistValue::dictionaryOf({{"x", array({"1", true, "3"})}}), "-x 1 -x 1 -x 3 "},
      {"-x -x1", PlistValue::dictionaryOf({{"x", "1"}}), "-x 1 "},
      {"word -p 80 lost -d", PlistValue::dictionaryOf({{"p", "80"}, {"d", true}}), "-p 80 -d "},
      {"--verbose", PlistValue::dictionaryOf({{"-", "verbose"}}), "-- verbose "},
      {"-\xC3\xA9t\xC3\xA9", PlistValue::dictionaryOf({{"\xC3\xA9", "t\xC3\xA9"}}), "-\xC3\xA9 t\xC3\xA9 "},
      {"/path/with-dash", PlistValue::dictionaryOf({{"path", "/path/with-dash"}}), "/path/with-dash "},
      {"", PlistValue::dictionaryOf({}), ""},
  };
  const XinetdUtilities converter = utilities();
  for (const auto& [text, dictionary, back] : cases) {
    const PlistValue made = converter.dictionaryFromArgList(text);
    EXPECT_EQ(made, dictionary) << text;
    EXPECT_TRUE(made.isMutable());
    EXPECT_EQ(converter.argListFromDictionary(made), PlistValue(back)) << text;
  }
  EXPECT_TRUE(converter.dictionaryFromArgList({}).isNull());
  EXPECT_TRUE(converter.argListFromDictionary({}).isNull());
  EXPECT_TRUE(logged().empty());
  EXPECT_EQ(converter.dictionaryFromArgList("-a 1 - x -"), PlistValue::dictionaryOf({{"a", "1"}}));
  EXPECT_EQ(converter.argListFromDictionary(PlistValue::dictionaryOf(
                {{"n", 0}, {"d", PlistDate{}}, {"r", 0.5}, {"f", false}, {"s", "v"}, {"path", "/p"}})),
            PlistValue("/p -r -s v "));
  EXPECT_THAT(logged(), ElementsAre("4 test:Warning:Unexpected arglist '-a 1 - x -' for service 'ftp' key='' value='x'",
                                    "4 test:Warning:Unexpected arglist '-a 1 - x -' for service 'ftp' key='' value='1'",
                                    "4 test:Warning:Unrecognized object type for service 'ftp' key 'd'"));
}

TEST_F(Xinetd, SignalsOnlyOneProcess) {
  struct Signals final : ProcessSignals {
    bool send(const ProcessIdentity& process, int signal) override {
      sent.emplace_back(process.id, signal);
      return true;
    }
    std::vector<std::pair<pid_t, int>> sent;
  } signals;
  const ScopedOverride<ProcessSignals> override(signals);
  const std::string own = std::to_string(getpid());
  for (const std::string& text : {std::string("-1\n"), std::string("999999999\n"), std::string("-" + own)}) {
    writeFile(folder_ / "var/run/xinetd.pid", text);
    EXPECT_FALSE(utilities().hup()) << text;
    EXPECT_THAT(logged(), ElementsAre("3 test:Error:Unable to hup xinetd - probably bad pid")) << text;
  }
  EXPECT_TRUE(signals.sent.empty());
  writeFile(folder_ / "var/run/xinetd.pid", " " + own + " and more");
  const XinetdUtilities reader = utilities();
  writeFile(folder_ / "var/run/xinetd.pid", "-1");
  EXPECT_TRUE(reader.hup()) << "the file is read when the object is made";
  EXPECT_THAT(signals.sent, ElementsAre(std::pair(getpid(), SIGHUP)));
  EXPECT_THAT(logged(), ElementsAre("5 test:Notice:hup signal sent to xinetd, pid=" + own));
  writeFile(folder_ / "var/run/xinetd.pid", "none");
  EXPECT_FALSE(utilities().hup()) << "there is no program to launch";
  EXPECT_THAT(logged(), ElementsAre("5 test:Notice:Invalid pid; launching xinetd"));
}

TEST_F(Xinetd, ASuperServerFollowsTheChangedFile) {
  const std::string port = std::to_string(testing::LoopbackListener().port());
  const std::string pidFile = folder_ / "var/run/xinetd.pid";
  const passwd* user = getpwuid(geteuid());
  ASSERT_NE(user, nullptr);
  writeFile(path_, "service ftp\n{\n\ttype = UNLISTED\n\tport = " + port +
                       "\n\tbind = 127.0.0.1\n\tsocket_type = stream\n\tprotocol = tcp\n\twait = no\n\tuser = " +
                       user->pw_name + "\n\tserver = /bin/echo\n\tserver_args = first answer\n}\n");
  writeFile(folder_ / "etc/xinetd.conf", "defaults\n{\n\tlog_type = FILE " + (folder_ / "xinetd.log") +
                                             "\n}\nincludedir " + (folder_ / "etc/xinetd.d") + "\n");
  // In the program's place: notes its arguments and leaves this machine's other configurations out.
  const std::string program = folder_ / "usr/sbin/xinetd";
  writeFile(program, "#!/bin/sh\necho \"$@\" > " + (folder_ / "arguments") + "\nexec /usr/sbin/xinetd -stayalive -f " +
                         (folder_ / "etc/xinetd.conf") + " \"$2\" \"$3\"\n");
  std::filesystem::permissions(program, std::filesystem::perms(0755));
  std::filesystem::create_directories(folder_ / "var/run");
  const auto pid = [&] { return static_cast<pid_t>(std::strtol(readFile(pidFile).c_str(), nullptr, 10)); };
  const auto end = [&] {
    if (pid() > 0) kill(pid(), SIGTERM);
  };
  const std::shared_ptr<void> ended(nullptr, [&](void*) { end(); });
  const auto answers = [&](const std::string& expected) {
    return testing::eventually([&] {
      return testing::runProgram({"/bin/bash", "-c", "cat < /dev/tcp/127.0.0.1/" + port}).output == expected;
    });
  };

  EXPECT_TRUE(utilities().hup());
  EXPECT_THAT(logged(), ElementsAre("5 test:Notice:Invalid pid; launching xinetd"));
  ASSERT_TRUE(testing::eventually([&] { return pid() > 0; })) << readFile(folder_ / "xinetd.log");
  EXPECT_TRUE(answers("first answer\n")) << readFile(folder_ / "xinetd.log");
  EXPECT_EQ(readFile(folder_ / "arguments"), "-inetd_compat -pidfile " + pidFile + "\n");

  XinetdUtilities editor = utilities();
  EXPECT_TRUE(editor.setOrAddEntryForKey("server_args", "second answer"));
  EXPECT_TRUE(editor.hup());
  EXPECT_TRUE(answers("second answer\n")) << readFile(folder_ / "xinetd.log");
  EXPECT_TRUE(editor.setOrAddEntryForKey("disable", "yes"));
  EXPECT_TRUE(editor.hup());
  EXPECT_TRUE(answers("")) << readFile(folder_ / "xinetd.log");
  EXPECT_TRUE(editor.removeEntryForKey("disable"));
  EXPECT_TRUE(editor.hup());
  EXPECT_TRUE(answers("second answer\n")) << readFile(folder_ / "xinetd.log");

  const pid_t server = pid();
  end();
  EXPECT_TRUE(testing::eventually([&] { return !get_service_state_from_pid(server); }));
}

}  // namespace
}  // namespace ostrel
