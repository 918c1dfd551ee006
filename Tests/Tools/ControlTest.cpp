// ostrelctl against a real daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Containers/PropertyList.h"
#include "Tools/DaemonProcess.h"

namespace ostrel {
namespace {

using testing::DaemonProcess;
using ::testing::HasSubstr;
using testing::Outcome;
using testing::runProgram;
using ::testing::StartsWith;
using testing::writeFile;

Outcome control(const DaemonProcess& daemon, std::vector<std::string> words) {
  words.insert(words.begin(), {OSTRELCTL_PROGRAM, "--root", daemon.root()});
  return runProgram(words);
}

TEST(Control, FindsTheDaemonOfThisMachineAndPrintsEachForm) {
  const bool tls = testing::mayUseTlsPort();
  DaemonProcess daemon(tls ? DaemonProcess::Transport::tls : DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();

  const auto text = control(daemon, {"ostrel_sample", "echo", "a=two words", "n:int=5"});
  EXPECT_EQ(text.status, 0) << text.errors;
  EXPECT_EQ(text.output, "echo:\n  command: echo\n  a: two words\n  n: 5\n");

  const auto json = control(daemon, {"--json", "ostrel_sample", "echo", "b:data=AAEC", "l:json=[1,true]"});
  EXPECT_EQ(nlohmann::json::parse(json.output),
            nlohmann::json::parse(R"({"echo":{"command":"echo","b":"AAEC","l":[1,true]}})"));

  const auto xml = control(daemon, {"--xml", "ostrel_sample", "echo", "when:date=2011-08-15T16:08:25Z"});
  EXPECT_EQ(readXmlPropertyList(xml.output).get("echo").get("when"), PlistValue(PlistDate{1313424505}));
  const auto raw = control(daemon, {"--raw", "ostrel_sample", "echo", "when:date=2011-08-15T16:08:25Z"});
  EXPECT_EQ(raw.output, xml.output);

  EXPECT_THAT(control(daemon, {"host"}).output, HasSubstr("\nfail-over: none (0)\ninterfaces:\n"));
  const nlohmann::json host = nlohmann::json::parse(control(daemon, {"host", "--json"}).output);
  EXPECT_EQ(host["interfaces"]["lo"]["interfaceName"], "lo");
  EXPECT_EQ(host["volumes"][0]["path"], "/");

  const auto logs = control(daemon, {"--json", "ostrel_sample", "getLogPaths"});
  const nlohmann::json paths = nlohmann::json::parse(logs.output);
  for (const auto& [identifier, path] : paths.items()) {
    const auto tail = control(daemon, {"--json", "ostrel_sample", "tailFile", "identifier=" + identifier,
                                       "offset:int=0", "amount:int=100", "withFilters:json=[\"no such words here\"]"});
    EXPECT_EQ(tail.status, 0) << tail.errors;
    EXPECT_EQ(nlohmann::json::parse(tail.output)["tailContents"], "");
  }
  const auto illegal =
      control(daemon, {"ostrel_sample", "tailFile", "path=/etc/shadow", "offset:int=0", "amount:int=9"});
  EXPECT_EQ(illegal.status, 1);
  EXPECT_EQ(illegal.output, "error: ILLEGAL_PATH_REQUESTED\n");
}

TEST(Control, TellsHowItWent) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const std::string port = std::to_string(daemon.port());
  writeFile(daemon.root() + "/session", daemon.sessionIdentifier() + "\n");
  writeFile(daemon.root() + "/wrong", "root@wrong\n");
  struct Case {
    std::vector<std::string> words;
    int status;
    const char* errors;
  };
  const Case cases[] = {
      {{"ostrel_sample", "getState"}, 0, ""},
      {{"ostrel_sample", "makeCoffee"}, 1, "ostrel_sample answered UNEXPECTED_COMMAND to makeCoffee"},
      {{"--json", "ostrel_nothing", "x"}, 1, "CANNOT_LOAD_BUNDLE_ERR"},
      {{"ostrel_sample", "getState", "a:int=b"}, 2, "'a' is not of the type int"},
      {{"ostrel_sample", "echo", "a=\x01"}, 2, "XML cannot carry"},
      {{"ostrel_sample", "echo", "\xff=a"}, 2, "XML cannot carry"},
      {{"--timeout", "nan", "ostrel_sample", "getState"}, 2, "--timeout"},
      {{"ostrel_sample"}, 2, "COMMAND is required"},
      {{"--json", "--xml", "ostrel_sample", "getState"}, 2, "--xml"},
      {{"no module", "getState"}, 2, "cannot be part of a URL"},
      {{"a/b", "getState"}, 3, "404"},
      {{"--port", port, "ostrel_sample", "getState"}, 0, ""},
      {{"--host", "127.0.0.1", "--port", port, "--session", daemon.root() + "/session", "ostrel_sample", "getState"},
       0,
       ""},
      {{"--session", daemon.root() + "/wrong", "ostrel_sample", "getState"}, 3, "authorization required"},
      {{"--session", "/does/not/exist", "ostrel_sample", "getState"}, 2, "cannot read"},
      {{"--user", "root", "--password-file", daemon.root() + "/wrong", "ostrel_sample", "getState"},
       3,
       "authorization required"},
      {{"--host", "192.0.2.1", "--port", port, "--session", daemon.root() + "/session", "ostrel_sample", "getState"},
       2,
       "credentials are not sent"},
      {{"--timeout", "0.5", "ostrel_test", "sleep", "seconds:real=5"}, 3, "no reply in time"},
      {{"--host", "127.0.0.1", "--port", "1", "ostrel_sample", "getState"}, 3, "err=111 (connect)"},
      {{"--help"}, 0, ""},
  };
  for (const Case& c : cases) {
    const Outcome outcome = control(daemon, c.words);
    EXPECT_EQ(outcome.status, c.status) << c.words[0] << ": " << outcome.errors;
    EXPECT_THAT(outcome.errors + outcome.output, HasSubstr(c.errors)) << c.words[0];
    EXPECT_EQ(outcome.errors.empty(), c.status == 0) << c.words[0] << ": " << outcome.errors;
  }
  // Nothing is said about a secret in the command lines above, so nothing of it may be in the log.
  EXPECT_EQ(daemon.log().find(daemon.sessionIdentifier()), std::string::npos);
}

TEST(Control, TellsSubcommandsFromModules) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const std::string port = std::to_string(daemon.port());
  struct Case {
    std::vector<std::string> words;
    int status;
    const char* text;
  };
  const Case cases[] = {
      {{"modules"}, 0, "ostrel_sample\nostrel_test\n"},
      {{"status", "--port", port}, 0, "daemon: ostreld 1.0.0, process "},
      {{"--timeout", "9", "--port=" + port, "status"}, 0, "running requests"},
      {{"--", "status", "getState"}, 1, "status answered CANNOT_LOAD_BUNDLE_ERR to getState"},
      {{"--json", "--", "modules", "getState"}, 1, "modules answered CANNOT_LOAD_BUNDLE_ERR to getState"},
      {{"ostrel_sample", "status"}, 1, "ostrel_sample answered UNEXPECTED_COMMAND to status"},
      {{"ostrel_sample", "echo", "status=modules"}, 0, "status: modules"},
      {{"ostreld", "makeCoffee"}, 1, "ostreld answered UNEXPECTED_COMMAND to makeCoffee"},
      {{"--port", "status", "modules"}, 2, "--port"},
      {{"status", "modules"}, 2, "modules"},
      {{"status", "--help"}, 0, "Usage: ostrelctl status"},
      {{"--help"}, 0, "modules  "},
  };
  for (const Case& c : cases) {
    const Outcome outcome = control(daemon, c.words);
    EXPECT_EQ(outcome.status, c.status) << c.words[0] << ": " << outcome.errors;
    EXPECT_THAT(outcome.errors + outcome.output, HasSubstr(c.text)) << c.words[0];
  }
  const auto status = nlohmann::json::parse(control(daemon, {"status", "--json"}).output);
  EXPECT_EQ(status["outstandingRequests"], nlohmann::json::array());
  EXPECT_LT(status["uptimeSeconds"].get<double>(), 60);
}

TEST(Control, ChecksTheCertificateWhenAsked) {
  if (!testing::mayUseTlsPort()) GTEST_SKIP() << "this user may not listen on port 311";
  DaemonProcess daemon(DaemonProcess::Transport::tls);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  EXPECT_EQ(control(daemon, {"--verify-certificate", "ostrel_sample", "getState"}).status, 3);
  const auto trusted =
      runProgram({OSTRELCTL_PROGRAM, "--root", daemon.root(), "--verify-certificate", "ostrel_sample", "getState"},
                 {"SSL_CERT_FILE=" + daemon.root() + "/var/ostreld/certificate.pem"});
  EXPECT_EQ(trusted.status, 0) << trusted.errors;
}

}  // namespace
}  // namespace ostrel
