// ostrelctl config: configuration files of every format, read and changed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <future>

#include "ConfigFiles/TextBlocks.h"
#include "ConfigFiles/TextDirectives.h"
#include "ConfigFiles/TextFileCopies.h"
#include "Tools/ChildProcess.h"

namespace ostrel {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testing::Outcome;
using testing::readFile;
using testing::runProgram;
using testing::TemporaryFolder;
using testing::writeFile;

Outcome config(std::vector<std::string> words) {
  words.insert(words.begin(), {OSTRELCTL_PROGRAM, "config"});
  return runProgram(words);
}

constexpr const char* webServer =
    "# main\n"
    "Listen 80\n"
    "Listen 443\n"
    "#ServerName example\n"
    "<VirtualHost *:80>\n"
    "\tDocumentRoot /var/www\n"
    "\t#LogLevel info\n"
    "\tCustomLog log \\\n"
    "\t  combined\n"
    "\t<Directory /var/www>\n"
    "\t\tOptions None\n"
    "\t</Directory>\n"
    "</VirtualHost>\n"
    "<VirtualHost *:8080>\n"
    "</VirtualHost>";

struct Case {
  std::vector<std::string> words;  // behind FILE
  const char* before;              // of this text...
  const char* after;               // ...this is made
};

/// Makes one change to a text in a file of that name and gives what the file then holds.
std::string changed(const std::string& name, const std::string& text, std::vector<std::string> words) {
  const TemporaryFolder folder;
  const std::string path = folder / name;
  writeFile(path, text);
  words.insert(words.begin() + 1, path);
  const Outcome outcome = config(words);
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  return readFile(path);
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  const std::size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what;
  return text.replace(at, what.size(), by);
}

TEST(ConfigCommand, ChangesDirectivesWhereTheyStand) {
  const std::string inFirst = "--in=virtualhost *:80";
  const Case cases[] = {
      {{"set", "Listen[2]", "8443"}, "Listen 443", "Listen 8443"},
      {{"set", "servername", "www"}, "*:8080>\n</VirtualHost>", "*:8080>\n</VirtualHost>\nservername www\n"},
      {{"add", inFirst, "DocumentRoot", "/b"}, "\t</Directory>\n", "\t</Directory>\n\tDocumentRoot /b\n"},
      {{"set", inFirst, "CustomLog", "other"}, "CustomLog log \\\n\t  combined\n", "CustomLog other\n"},
      {{"unset", inFirst, "CustomLog"}, "\tCustomLog log \\\n\t  combined\n", ""},
      {{"comment", inFirst, "DocumentRoot"}, "\tDocumentRoot", "\t#DocumentRoot"},
      {{"uncomment", inFirst, "LogLevel"}, "\t#LogLevel", "\tLogLevel"},
      {{"uncomment", "ServerName"}, "#ServerName", "ServerName"},
      {{"set", inFirst, "--in=Directory", "Options", "All"}, "Options None", "Options All"},
      {{"unset", "--in=VirtualHost[2]"}, "<VirtualHost *:8080>\n</VirtualHost>", ""},
      {{"comment", "--in=VirtualHost *:8080"}, "<VirtualHost *:8080>\n</V", "#<VirtualHost *:8080>\n#</V"},
      {{"set", "--in=VirtualHost *:8080", "A", "b"}, "*:8080>\n", "*:8080>\n    A b\n"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(changed("web.conf", webServer, c.words), replaced(webServer, c.before, c.after)) << c.words.back();
  // What is put behind comment marks comes back as it was, comments inside included.
  const std::string commented = changed("web.conf", webServer, {"comment", inFirst});
  EXPECT_THAT(commented, HasSubstr("#\t#LogLevel"));
  EXPECT_EQ(changed("web.conf", commented, {"uncomment", inFirst}), webServer);
  // Lines longer than the buffer of the editing functions, whose rest looks like a directive.
  const std::string longLine = "Listen " + std::string(504, '1') + "Listen 5\nListen 6\n";
  EXPECT_EQ(changed("web.conf", longLine, {"set", "Listen[1]", "7"}), "Listen 7\nListen 6\n");
  EXPECT_EQ(changed("web.conf", "Open \\\n", {"set", "New", "1"}), "Open \\\n\nNew 1\n");
  EXPECT_EQ(changed("web.conf", "A 1\r\nB 2", {"set", "C", "3"}), "A 1\r\nB 2\r\nC 3\r\n");
  EXPECT_EQ(changed("web.conf", "A 1\nB 2\r", {"set", "C", "3"}), "A 1\nB 2\r\nC 3\n");
}

TEST(ConfigCommand, ChangesTheOtherFormats) {
  const std::string service = "service telnet\n{\n\tport = 23\n}\n";
  const std::string settings = "# start\nWEB=-NO-\nWEBMAIL=\"a=b\"\n#OLD=1\n";
  struct {
    const char* name;
    std::string text;
    std::vector<std::string> words;
    std::string result;
  } const cases[] = {
      {"hostconfig", settings, {"set", "WEB", "--", "-YES-"}, replaced(settings, "-NO-", "-YES-")},
      {"hostconfig", settings, {"set", "NEW", "'x'"}, settings + "NEW='x'\n"},
      {"hostconfig", settings, {"uncomment", "OLD"}, replaced(settings, "#OLD", "OLD")},
      {"default", settings, {"unset", "WEBMAIL"}, replaced(settings, "WEBMAIL=\"a=b\"\n", "")},
      {"xinetd.d/telnet", service, {"set", "port", "24"}, "service telnet\n{  \n\tport\t= 24\n}  \n"},
      {"xinetd.d/telnet", service, {"unset", "port"}, "service telnet\n{  \n}  \n"},
      {"telnet", service, {"set", "port", "24"}, "service telnet\n{  \n\tport\t= 24\n}  \n"},
      {"syslog.conf",
       "mail.info\t/var/log/mail\n",
       {"set", "cron", "debug /var/log/cron"},
       "mail.info\t/var/log/mail\ncron.*\t\t\t\t\t\t\t/var/log/cron\n"},
      {"syslog.conf",
       "mail.info\t/var/log/mail\ncron.*\t\t\t\t\t\t\t/var/log/cron\n",
       {"set", "cron", "debug /var/log/cron"},
       "mail.info\t/var/log/mail\ncron.*\t\t\t\t\t\t\t/var/log/cron\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(changed(c.name, c.text, c.words), c.result) << c.name;

  const std::string list = changed(
      "a.plist",
      "<plist version=\"1.0\"><dict><key>net</key><dict><key>port</key><integer>1</integer></dict></dict></plist>",
      {"set", "--type=int", "net:port", "8080"});
  EXPECT_THAT(list, HasSubstr("<integer>8080</integer>"));
}

TEST(ConfigCommand, ReadsValues) {
  const TemporaryFolder folder;
  writeFile(folder / "web.conf", webServer);
  writeFile(folder / "syslog.conf", "mail.info /var/log/mail\n");
  writeFile(folder / "xinetd.d/ftp", "service ftp\n{\n flags = A B\n}\n");
  struct {
    std::vector<std::string> words;
    const char* output;
  } const cases[] = {
      {{"get", folder / "web.conf", "listen"}, "80\n443\n"},
      {{"get", folder / "web.conf", "--in", "VirtualHost *:80", "DocumentRoot"}, "/var/www\n"},
      {{"get", folder / "syslog.conf", "mail"}, "level: info\nactions:\n  - /var/log/mail\n"},
      {{"get", folder / "xinetd.d/ftp", "flags"}, "A B\n"},
  };
  for (const auto& c : cases) {
    const Outcome outcome = config(c.words);
    EXPECT_EQ(outcome.output, c.output) << outcome.errors;
    EXPECT_EQ(outcome.status, 0);
  }
  const auto json = nlohmann::json::parse(config({"get", "--json", folder / "web.conf", "Listen"}).output);
  EXPECT_EQ(json["values"], nlohmann::json::parse(R"(["80", "443"])"));
  EXPECT_EQ(json["format"], "apache");
}

TEST(ConfigCommand, AppliesAListWholeOrNotAtAll) {
  const TemporaryFolder folder;
  const std::string path = folder / "real.conf";
  writeFile(path, webServer);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  std::filesystem::create_symlink("real.conf", folder / "web.conf");
  writeFile(folder / "changes",
            "# a new host\n"
            "add-block VirtualHost *:81\n"
            "enter VirtualHost *:81\n"
            "  set ServerName  \"new host\"\n"
            "leave\n"
            "unset Listen[1]\n");
  writeFile(folder / "half", "set Listen[1] 1\nunset NoSuchThing\n");

  const Outcome shown = config({"diff", folder / "web.conf", folder / "changes"});
  EXPECT_EQ(shown.status, 0) << shown.errors;
  EXPECT_THAT(shown.output, HasSubstr("-Listen 80\n"));
  EXPECT_THAT(shown.output, HasSubstr("+    ServerName \"new host\"\n"));
  EXPECT_EQ(config({"apply", folder / "web.conf", folder / "half"}).status, 1);
  EXPECT_EQ(config({"apply", "--dry-run", folder / "web.conf", folder / "changes"}).output, shown.output);
  EXPECT_EQ(readFile(path), webServer);

  EXPECT_EQ(config({"apply", folder / "web.conf", folder / "changes"}).status, 0);
  EXPECT_EQ(readFile(path), replaced(webServer, "Listen 80\n", "") +
                                "\n<VirtualHost *:81>\n    ServerName \"new host\"\n</VirtualHost>\n");
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "web.conf"));
  EXPECT_EQ(std::filesystem::status(path).permissions(), static_cast<std::filesystem::perms>(0640));
}

TEST(ConfigCommand, LosesNoChangeOfSeveralAtATime) {
  const TemporaryFolder folder;
  const std::string file = folder / "web.conf";
  writeFile(file, "Start 1\n");
  std::vector<std::future<int>> runs;
  for (int i = 0; i < 12; ++i)
    runs.push_back(std::async(std::launch::async, [&] { return config({"add", file, "Listen", "80"}).status; }));
  for (std::future<int>& run : runs) EXPECT_EQ(run.get(), 0);
  std::string all = "Start 1\n";
  for (int i = 0; i < 12; ++i) all += "Listen 80\n";
  EXPECT_EQ(readFile(file), all);
}

TEST(ConfigCommand, TellsWhatCannotBeDone) {
  const TemporaryFolder folder;
  const std::string file = folder / "web.conf";
  writeFile(file, webServer);
  writeFile(folder / "nul", std::string("a\0b", 3));
  writeFile(folder / "bad.plist", "<plist>");
  writeFile(folder / "cr", "A 1\rB 2\r");
  const std::string open = "<Files a>\nA 1\n<Files b>\nB 1\n</Files>\nListen 1\n";
  writeFile(folder / "open", open);
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  struct {
    std::vector<std::string> words;
    int status;
    const char* errors;
  } const cases[] = {
      {{"get", file, "NoSuch"}, 1, "there is no NoSuch"},
      {{"unset", file, "DocumentRoot"}, 1, "in the block <VirtualHost *:80> of line 5"},
      {{"set", file, "Listen", "1"}, 1, "Listen stands 2 times there, first in lines 2 and 3"},
      {{"set", file, "--in", "VirtualHost", "A", "b"}, 1, "there are 2 blocks <VirtualHost>"},
      {{"set", file, "--in", "Files x", "A", "b"}, 1, "there is no block <Files x>"},
      {{"set", file, "A", "two\nlines"}, 1, "one line"},
      {{"set", file, "A b", "c"}, 1, "cannot be the name"},
      {{"set", file, "A", "joins\\"}, 1, "backslash"},
      {{"set", file, "--format", "yaml", "A", "b"}, 2, "'yaml' is no format"},
      {{"set", file, "A"}, 2, "VALUE is required"},
      {{"frobnicate"}, 2, "there is no 'config frobnicate': see ostrelctl config --help"},
      {{"get", folder / "missing", "A"}, 3, "cannot read"},
      {{"get", folder.path(), "A"}, 3, "cannot read"},
      {{"get", folder / "pipe", "A"}, 3, "cannot read"},
      {{"get", folder / "nul", "A"}, 1, "NUL"},
      {{"set", folder / "cr", "B", "3"}, 1, "CR alone"},
      {{"unset", folder / "open", "--in", "Files a"}, 1, "line 1 is not closed"},
      {{"set", folder / "open", "--in", "Files a", "C", "1"}, 1, "line 1 is not closed"},
      {{"set", folder / "open", "Listen", "2"}, 1, "line 1 is not closed"},
      {{"add-block", file, "Lo>cation x"}, 1, "cannot be a block"},
      {{"get", "/dev/null", "A"}, 3, "no regular file"},
      {{"get", folder / "bad.plist", "A"}, 1, "no property list"},
      {{"diff", file, folder / "missing"}, 2, "missing"},
  };
  for (const auto& c : cases) {
    const Outcome outcome = config(c.words);
    EXPECT_EQ(outcome.status, c.status) << c.errors;
    EXPECT_THAT(outcome.errors, HasSubstr(c.errors));
  }
  EXPECT_EQ(readFile(file), webServer);
  EXPECT_EQ(readFile(folder / "open"), open);
}

/// Debian's own configuration tree, copied, and what the web server's own check says of it.
class WebServerTree {
 public:
  WebServerTree() {
    std::filesystem::copy("/etc/apache2", folder_.path() + "/apache2",
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
    std::filesystem::create_directories(folder_ / "run");
    std::filesystem::create_directories(folder_ / "log");
  }
  std::string operator/(const std::string& name) const { return folder_.path() + "/apache2/" + name; }
  Outcome check() const {
    return runProgram({"/usr/sbin/apache2", "-t", "-d", folder_.path() + "/apache2", "-f", *this / "apache2.conf"},
                      {"APACHE_RUN_DIR=" + (folder_ / "run"), "APACHE_LOG_DIR=" + (folder_ / "log"),
                       "APACHE_LOCK_DIR=" + (folder_ / "run"), "APACHE_PID_FILE=" + (folder_ / "run/pid"),
                       "APACHE_RUN_USER=www-data", "APACHE_RUN_GROUP=www-data"});
  }

 private:
  TemporaryFolder folder_;
};

TEST(ConfigCommand, TheWebServerAcceptsWhatWasEdited) {
  if (!std::filesystem::exists("/usr/sbin/apache2")) GTEST_SKIP() << "apache2 is not installed";
  const WebServerTree tree;
  ASSERT_EQ(tree.check().status, 0) << tree.check().errors;

  const std::string site = tree / "sites-available/000-default.conf";
  const std::string main = tree / "apache2.conf";
  writeFile(tree / "changes",
            "set KeepAliveTimeout 15\ncomment HostnameLookups\nset ServerName test.example\nunset LogLevel\n"
            "enter Directory /var/www/\nset Options None\nleave\n");
  writeFile(tree / "hosts",
            "add-block VirtualHost *:8081\nenter VirtualHost *:8081\nset ServerName one.example\n"
            "set DocumentRoot /usr/share\nleave\n"
            "enter VirtualHost *:80\ncomment CustomLog\nset ServerAdmin root@example\nset ServerName two.example\n");
  for (const auto& words : std::vector<std::vector<std::string>>{{"apply", main, tree / "changes"},
                                                                 {"apply", site, tree / "hosts"},
                                                                 {"set", tree / "ports.conf", "Listen", "8081"}}) {
    const Outcome outcome = config(words);
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(tree.check().status, 0) << tree.check().errors;
  }
  EXPECT_THAT(readFile(site), HasSubstr("#CustomLog"));
  // The check sees the edits: one that breaks the file is refused.
  ASSERT_EQ(config({"set", main, "NoSuchDirective", "on"}).status, 0);
  EXPECT_NE(tree.check().status, 0);
  EXPECT_THAT(tree.check().errors, HasSubstr("NoSuchDirective"));
  ASSERT_EQ(config({"comment", main, "NoSuchDirective"}).status, 0);
  EXPECT_EQ(tree.check().status, 0) << tree.check().errors;
}

TEST(ConfigCommand, TheWebServerAcceptsWhatWasEditedInPlace) {
  if (!std::filesystem::exists("/usr/sbin/apache2")) GTEST_SKIP() << "apache2 is not installed";
  const WebServerTree tree;
  const std::string main = tree / "apache2.conf";
  std::FILE* const stream = std::fopen(main.c_str(), "r+");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(UpdateDirectiveInFile(stream, "KeepAliveTimeout", nullptr, "15", 0, nullptr), 0);
  EXPECT_EQ(UpdateDirectiveInFile(stream, "LogLevel", "warn", "info", 0, nullptr), 0);
  EXPECT_EQ(DeleteDirectiveInFile(stream, "HostnameLookups", 0, 0), 0);
  EXPECT_EQ(CreateDirectiveInFile(stream, "ServerName", "test.example", 1, 0, 1), 0);
  EXPECT_EQ(CreateDirectiveInFile(stream, "<VirtualHost", "*:8082>", 1, 0, 0), 0);
  EXPECT_EQ(CreateDirectiveInFile(stream, "</VirtualHost>", "", 0, 0, 1), 0);
  std::int64_t start = 0;
  std::int64_t end = 0;
  EXPECT_EQ(MatchBlockInFile(stream, "Directory", "/usr/share", &start, &end, nullptr, nullptr), 0);
  EXPECT_EQ(CommentOutBlockInFile(stream, 1, start, end, nullptr, nullptr), 0);
  ASSERT_EQ(std::fclose(stream), 0);
  EXPECT_EQ(tree.check().status, 0) << tree.check().errors;
  EXPECT_EQ(CompactFile(main.c_str()), 0);
  EXPECT_EQ(tree.check().status, 0) << tree.check().errors;
  EXPECT_THAT(readFile(main), Not(HasSubstr("\n\n\n")));
}

}  // namespace
}  // namespace ostrel
