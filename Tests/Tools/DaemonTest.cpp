// The daemon as clients meet it: a real process, over TLS and over plain TCP.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <thread>

#include "Tools/DaemonProcess.h"

namespace ostrel {
namespace {

using testing::ChildProcess;
using ::testing::ContainsRegex;
using testing::DaemonProcess;
using ::testing::EndsWith;
using testing::eventually;
using ::testing::HasSubstr;
using ::testing::Not;
using testing::readFile;
using testing::runProgram;
using ::testing::SizeIs;
using std::string_literals::operator""s;
using Transport = DaemonProcess::Transport;

PlistValue command(const char* name) { return PlistValue::dictionaryOf({{"command", name}}); }
PlistValue errorOf(const char* code) { return PlistValue::dictionaryOf({{"error", code}}); }
PlistValue setState(const char* state) { return PlistValue::dictionaryOf({{"command", "setState"}, {"state", state}}); }

PlistValue sleepFor(double seconds) { return PlistValue::dictionaryOf({{"command", "sleep"}, {"seconds", seconds}}); }

/// The whole of a reply's status line and of its session header matter to clients of other makes.
std::string post(const DaemonProcess& daemon, const std::string& head, const std::string& body) {
  return daemon.exchange("POST /commands/ostrel_sample HTTP/1.0\r\n" + head +
                         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

#define REQUIRE_TLS_PORT() \
  if (!testing::mayUseTlsPort()) GTEST_SKIP() << "this user may not listen on port 311"

TEST(Daemon, CarriesCommandsOverTlsAndBack) {
  REQUIRE_TLS_PORT();
  DaemonProcess daemon(Transport::tls);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  EXPECT_EQ(daemon.port(), 311);

  const std::string text = "a&b+c/d e % \"<>\u20ac\r\n";
  EXPECT_EQ(daemon.echo(text).stringValue(), text);
  EXPECT_EQ(daemon.send(command("getState")).get("state").stringValue(), "STOPPED");
  EXPECT_TRUE(daemon.send(command("getInterfaces")).get("interfaces").isArray());
  EXPECT_EQ(daemon.send(command("makeCoffee")), errorOf("UNEXPECTED_COMMAND"));
  EXPECT_EQ(daemon.send(command("x"), "ostrel_nothing"), errorOf("CANNOT_LOAD_BUNDLE_ERR"));
  EXPECT_EQ(daemon.send(command("throw"), "ostrel_test"), errorOf("NIL_RESPONSE_ERR (out of paper)"));
  EXPECT_EQ(daemon.send(command("unprintable"), "ostrel_test"), errorOf("CANNOT_CREATE_XML_RESPONSE_ERR"));
  EXPECT_EQ(daemon.send(command("control"), "ostrel_test"), PlistValue::dictionaryOf({{"text", "\xEF\xBF\xBD[1m"}}));

  // A megabyte each way.
  const std::string large(1 << 20, 'y');
  EXPECT_EQ(daemon.echo(large).stringValue(), large);

  // An empty request checks the caller and asks nothing of the module.
  const auto session = daemon.session();
  EXPECT_EQ(session->authenticateInSyncMode(), PlistValue::dictionaryOf({}));
  EXPECT_EQ(session->status(), 1);
  EXPECT_EQ(session->sessionID(), daemon.sessionIdentifier());

  ASSERT_EQ(daemon.stop(), 0) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("modules loaded: ostrel_sample, ostrel_test"));
  EXPECT_THAT(daemon.log(),
              HasSubstr("module=\"ostrel_test\" command=\"throw\" outcome=\"error NIL_RESPONSE_ERR (out of"));
  EXPECT_THAT(daemon.log(), Not(HasSubstr("yyyyyyyy")));  // never an argument's value
  EXPECT_THAT(daemon.auditLines(), SizeIs(10));
  EXPECT_FALSE(std::filesystem::exists(daemon.root() + "/var/ostreld/local_session"));
}

TEST(Daemon, SpeaksNoOldTlsAndResumesSessions) {
  REQUIRE_TLS_PORT();
  DaemonProcess daemon(Transport::tls);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const auto handshake = [&daemon](const char* version, const std::string& more) {
    return runProgram({"/bin/sh", "-c",
                       "(printf 'GET / HTTP/1.0\\r\\n\\r\\n'; sleep 0.5) | openssl s_client -connect " + daemon.host() +
                           ":311 -cipher ALL:@SECLEVEL=0 " + version + " " + more});
  };
  const std::string ticket = daemon.root() + "/ticket";
  EXPECT_THAT(handshake("-tls1_1", "").output, Not(HasSubstr("405 Method")));
  for (const char* version : {"-tls1_2", "-tls1_3"}) {
    EXPECT_THAT(handshake(version, "-sess_out " + ticket).output, HasSubstr("405 Method Not Allowed")) << version;
    EXPECT_THAT(handshake(version, "-sess_in " + ticket).output, HasSubstr("Reused, ")) << version;
  }
}

TEST(Daemon, StartsAndStopsARealServiceAndKeepsSettingsAcrossRestarts) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const PlistValue value = PlistValue::dictionaryOf({{"size", 3}, {"names", PlistValue::arrayOf({"a", "b"})}});
  daemon.send(PlistValue::dictionaryOf({{"command", "setSetting"}, {"name", "greeting"}, {"value", value}}));
  const auto pid = static_cast<pid_t>(daemon.send(setState("START")).get("servicePid").int64Value());
  ASSERT_GT(pid, 1);
  EXPECT_EQ(kill(pid, 0), 0);
  EXPECT_EQ(daemon.send(setState("start")), errorOf("INVALID_ARG_ERR"));

  ASSERT_EQ(daemon.stop(), 0);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const PlistValue setting = daemon.send(PlistValue::dictionaryOf({{"command", "getSetting"}, {"name", "greeting"}}));
  EXPECT_EQ(setting, PlistValue::dictionaryOf({{"name", "greeting"}, {"value", value}}));
  EXPECT_EQ(daemon.send(command("getState")).get("servicePid").int64Value(), pid);
  EXPECT_EQ(daemon.send(setState("STOP")).get("state").stringValue(), "STOPPED");
  EXPECT_TRUE(eventually([pid] { return kill(pid, 0) != 0; }));
}

TEST(Daemon, LosesNothingWhenItIsKilled) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const std::string before = daemon.sessionIdentifier();
  ASSERT_EQ(daemon.send(sleepFor(0), "ostrel_test").get("count").int64Value(), 1);
  const auto request = daemon.session("ostrel_test");
  std::thread client([&request] { request->sendSyncRequest(sleepFor(60)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  daemon.child().send(SIGKILL);
  EXPECT_EQ(daemon.child().wait(), 128 + SIGKILL);
  client.join();

  ASSERT_TRUE(daemon.start()) << daemon.log();
  EXPECT_EQ(daemon.send(command("count"), "ostrel_test").get("count").int64Value(), 1);
  EXPECT_NE(daemon.sessionIdentifier(), before);
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Daemon, FinishesRunningRequestsBeforeItStops) {
  DaemonProcess daemon(Transport::plain);
  // The limits on sending and reading do not count while a command runs.
  ASSERT_TRUE(daemon.start({"--request-time", "1", "--reply-time", "1"})) << daemon.log();
  const auto session = daemon.session("ostrel_test");
  PlistValue reply;
  std::thread client([&] { reply = session->sendSyncRequest(sleepFor(2.5)); });
  EXPECT_TRUE(eventually([&daemon] {  // a request for another module is not held up by it
    return daemon.echo("x").stringValue() == "x";
  }));
  const auto idle = daemon.connectRaw();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon.stop(), 0) << daemon.log();
  EXPECT_GT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(500));
  client.join();
  EXPECT_EQ(reply.get("count").int64Value(), 1) << reply.description();
  EXPECT_EQ(idle.readAll(), "");
  EXPECT_FALSE(daemon.connectRaw().isConnected());

  ASSERT_TRUE(daemon.start()) << daemon.log();
  EXPECT_EQ(daemon.send(command("count"), "ostrel_test").get("count").int64Value(), 1);
}

TEST(Daemon, GivesUpOnARequestThatOutlastsTheStop) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start({"--stop-time", "0.5"})) << daemon.log();
  const auto session = daemon.session("ostrel_test");
  std::thread client([&] { session->sendSyncRequest(sleepFor(60)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(daemon.stop(), 1);
  EXPECT_THAT(daemon.log(), HasSubstr("1 requests unfinished"));
  client.join();
}

TEST(Daemon, StopsAtOnceWhenItIsToldTwice) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start({"--stop-time", "600"})) << daemon.log();
  const auto session = daemon.session("ostrel_test");
  std::thread client([&] { session->sendSyncRequest(sleepFor(600)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  daemon.child().send(SIGTERM);
  // Also within the second that clients who are sending get.
  EXPECT_TRUE(eventually([&daemon] { return daemon.log().find("stopping: ") != std::string::npos; }));
  EXPECT_EQ(daemon.stop(), 1);
  daemon.child().send(SIGKILL);
  client.join();
}

TEST(Daemon, LetsNobodyInWithoutTheIdentifier) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  struct stat status {};
  ASSERT_EQ(stat((daemon.root() + "/var/ostreld/local_session").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_THAT(daemon.sessionIdentifier(), ContainsRegex("^[^@]+@[A-Za-z0-9]{32}$"));

  const std::string identifier = daemon.sessionIdentifier();
  const std::string wrong = identifier.substr(0, identifier.size() - 1) + (identifier.back() == 'a' ? "b" : "a");
  for (const std::string& head :
       {std::string(), "OstrelSessionID: " + wrong + "\r\n", "OstrelSessionID: " + identifier + "x\r\n",
        std::string("Authorization: Basic cm9vdDpyb290\r\n"),
        std::string("Authorization: \r\nOstrelSessionID: \r\n")}) {
    const std::string reply = post(daemon, head, "input=x");
    EXPECT_THAT(reply, ContainsRegex("^HTTP/1.0 401 ")) << head;
    EXPECT_THAT(reply, HasSubstr("WWW-Authenticate: Basic ")) << head;
    EXPECT_THAT(reply, Not(HasSubstr("OstrelSessionID"))) << head;
  }
  EXPECT_THAT(daemon.auditLines(), SizeIs(5));
  EXPECT_THAT(daemon.auditLines().back(), HasSubstr("user=\"-\""));
  EXPECT_THAT(daemon.auditLines().back(), HasSubstr("outcome=\"refused 401 not authenticated\""));
  EXPECT_THAT(daemon.log(), Not(HasSubstr(wrong)));

  const auto session = OstrelDaemonSession::init();
  session->setHost(daemon.host());
  session->setPort(std::to_string(daemon.port()));
  session->setUserName("root");
  session->setPassword("root");
  session->sendSyncRequest(command("getState"));
  EXPECT_TRUE(OstrelDaemonSession::didAuthenticationFail(session->failureReason()));

  const std::string accepted = post(daemon, "OstrelSessionID: " + identifier + "\r\n", "");
  EXPECT_THAT(accepted, ContainsRegex("^HTTP/1.0 200 OK\r\n"));
  EXPECT_THAT(accepted, HasSubstr("\r\nOstrelSessionID: " + identifier + "\r\n"));
  EXPECT_THAT(accepted, HasSubstr("\r\nConnection: close\r\n"));
}

TEST(Daemon, NeverMakesAPlainReplyThatClientsTakeForABrokenConnection) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const auto session = daemon.session("ostrel_test");
  // Past two pieces of 8192 bytes, byte by byte around each, the head included.
  for (std::uint64_t size = 7100; size < 16500; size += (size > 8300 && size < 15300) ? 500 : 4) {
    const PlistValue reply = session->sendSyncRequest(PlistValue::dictionaryOf({{"command", "fill"}, {"size", size}}));
    ASSERT_EQ(reply.get("text").stringValue().size(), size) << reply.description().substr(0, 200);
  }
  // Exactly: at each body size, head and body are never a multiple.
  bool padded = false;
  for (std::size_t size = 7600; size < 8000; ++size) {
    const std::string body =
        OstrelDaemonSession::encodeRequest(PlistValue::dictionaryOf({{"command", "fill"}, {"size", size}}));
    const std::string reply =
        daemon.exchange("POST /commands/ostrel_test HTTP/1.0\r\nOstrelSessionID: " + daemon.sessionIdentifier() +
                        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    ASSERT_NE(reply.size() % 8192, 0U) << size;
    padded |= reply.find("X-Padding") != std::string::npos;
  }
  EXPECT_TRUE(padded);
}

/// Clients look for the head in the first piece that they read, and lose the reply when that ends within a character.
void expectRepliesInEveryScript(const DaemonProcess& daemon) {
  for (const std::string& character : {"\u00e9"s, "\u6771"s, "\U0001F5A8"s}) {
    std::string rest;
    while (rest.size() < 40'000) rest += character;
    for (std::size_t shift = 0; shift < 12; ++shift) {
      const std::string text = std::string(shift, 'a') + rest;
      ASSERT_TRUE(daemon.echo(text).stringValue() == text) << character << " after " << shift;
    }
    for (std::size_t size = 6000; size < 9000; size += 127) {  // around the end of the first piece
      const std::string text = rest.substr(0, size - size % character.size());
      ASSERT_TRUE(daemon.echo(text).stringValue() == text) << size << " bytes of " << character;
    }
  }
}

TEST(Daemon, RepliesInEveryScriptOverPlainTcp) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  expectRepliesInEveryScript(daemon);
}

TEST(Daemon, RepliesInEveryScriptOverTls) {
  REQUIRE_TLS_PORT();
  DaemonProcess daemon(Transport::tls);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  expectRepliesInEveryScript(daemon);
}

TEST(Daemon, SaysWhyItDoesNotStart) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const auto attempt = [](std::vector<std::string> command) { return runProgram(command); };

  const auto second = attempt(daemon.commandLine({"--foreground"}));
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.errors, HasSubstr("another ostreld (process " + std::to_string(daemon.child().pid()) + ")"));
  EXPECT_EQ(daemon.echo("still there").stringValue(), "still there");

  const testing::TemporaryFolder root;
  const std::vector<std::string> base{OSTRELD_PROGRAM, "--root", root.path()};
  const auto with = [&base, &attempt](std::vector<std::string> more) {
    more.insert(more.begin(), base.begin(), base.end());
    return attempt(more);
  };
  // Without --foreground, the program that was started still tells how the start went.
  const auto taken = with({"--plain", "--port", std::to_string(daemon.port())});
  EXPECT_EQ(taken.status, 1);
  EXPECT_THAT(taken.errors, HasSubstr("cannot listen on 127.0.0.1:" + std::to_string(daemon.port())));
  EXPECT_THAT(taken.errors, HasSubstr("--port"));
  struct Case {
    std::vector<std::string> options;
    int status;
    const char* errors;
  };
  const Case cases[] = {
      {{"--plain", "--bind", "0.0.0.0"}, 2, "loopback"},
      {{"--plain", "--bind", "::"}, 2, "loopback"},
      {{"--bind", "localhost"}, 2, "numeric"},
      {{"--port", "65536"}, 2, "--port"},
      {{"--max-body", "-1"}, 2, "--max-body"},
      {{"--request-time", "nan"}, 2, "--request-time"},
      {{"--stop-time", "1e9"}, 2, "--stop-time"},
      {{"--certificate", "/dev/null"}, 2, "--key"},
      {{"--certificate", "/dev/null", "--key", "/dev/null", "--port", "0"}, 1, "/dev/null holds no certificate"},
      {{"--bind", "192.0.2.77", "--port", "0"}, 1, "--bind"},
      {{"--what"}, 2, "--what"},
  };
  for (const Case& c : cases) {
    const auto outcome = with(c.options);
    EXPECT_EQ(outcome.status, c.status) << c.options[0];
    EXPECT_THAT(outcome.errors, HasSubstr(c.errors)) << c.options[0];
  }
  for (const char* folder : {"/var/ostreld", "/private/var/ostreld"}) {
    const testing::TemporaryFolder open;
    const std::filesystem::path path = open.path() + folder;
    std::filesystem::create_directories(path);
    std::filesystem::permissions(path, std::filesystem::perms::group_write, std::filesystem::perm_options::add);
    const auto refused = attempt({OSTRELD_PROGRAM, "--plain", "--port", "0", "--root", open.path()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr(path.string() + " may be written by others")) << folder;
  }
  EXPECT_EQ(attempt({OSTRELD_PROGRAM, "--plain", "--port", "0", "--root", ""}).status, 2);
  EXPECT_EQ(with({"--root", "/dev/null/x"}).status, 2);  // given twice
  EXPECT_THAT(attempt({OSTRELD_PROGRAM, "--root", "/dev/null/x"}).errors, HasSubstr("cannot make the folder"));
  EXPECT_THAT(with({"--help"}).output, HasSubstr("--max-connections-per-peer"));
}

TEST(Daemon, GoesToTheBackgroundAndTellsTheServiceManager) {
  DaemonProcess daemon(Transport::plain);
  const std::string path = daemon.root() + "/notify";
  const int notices = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(notices, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const auto nextNotice = [notices] {
    char text[64];
    pollfd ready{notices, POLLIN, 0};
    const ssize_t size = poll(&ready, 1, 40'000) > 0 ? recv(notices, text, sizeof text, 0) : 0;
    return std::string(text, static_cast<std::size_t>(size));
  };

  const auto started = runProgram(daemon.commandLine(), {"NOTIFY_SOCKET=" + path});
  ASSERT_EQ(started.status, 0) << started.errors;
  EXPECT_EQ(started.errors, "");
  EXPECT_EQ(nextNotice(), "READY=1");
  const pid_t pid = std::stoi(readFile(daemon.root() + "/var/ostreld/ostreld.pid"));
  EXPECT_EQ(getsid(pid), pid);
  kill(pid, SIGHUP);
  kill(pid, SIGTERM);
  EXPECT_EQ(nextNotice(), "STOPPING=1");
  EXPECT_TRUE(eventually([pid] {
    return kill(pid, 0) != 0 || readFile("/proc/" + std::to_string(pid) + "/stat").find(") Z") != std::string::npos;
  }));
  close(notices);
}

TEST(Daemon, StartsWithoutStandardStreams) {
  DaemonProcess daemon(Transport::plain);
  const std::vector<std::string> closing{"/bin/sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"};
  daemon.startThrough(closing);
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(daemon.echo("x").stringValue(), "x");
  // Log lines went nowhere, and not into a file that took the number of standard error.
  EXPECT_EQ(readFile(daemon.root() + "/var/ostreld/ostreld.pid"), std::to_string(daemon.child().pid()) + "\n");
  ASSERT_EQ(daemon.stop(), 0);

  std::vector<std::string> command = daemon.commandLine();
  command.insert(command.begin(), closing.begin(), closing.end());
  ASSERT_EQ(runProgram(command).status, 0);
  kill(std::stoi(readFile(daemon.root() + "/var/ostreld/ostreld.pid")), SIGTERM);
}

TEST(Daemon, SharesNothingBetweenRequestsThatRunAtOnce) {
  REQUIRE_TLS_PORT();
  DaemonProcess daemon(Transport::tls);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  std::atomic<int> right = 0;
  std::vector<std::thread> clients;
  for (int client = 0; client < 8; ++client) {
    clients.emplace_back([&, client] {
      for (int i = 0; i < 10; ++i) {
        const std::string text = std::to_string(client) + "/" + std::to_string(i) + std::string(5000, 'z');
        right += daemon.echo(text).stringValue() == text ? 1 : 0;
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(right, 80);
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_THAT(daemon.auditLines(), SizeIs(80));
}

}  // namespace
}  // namespace ostrel
