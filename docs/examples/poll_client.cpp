// A client with an event loop of its own, around poll(2): see docs/asynchronous-client.md.
//
//     poll_client HOST PORT SESSION-FILE MODULE
//
// Every line of the standard input is a command for the module; its answer is printed when it arrives, in any order.
// The line "cancel" cancels what has not been answered. Ends when the input has ended and all is answered.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "ClientSession/OstrelDaemonSession.h"
#include "Platform/MainEventLoop.h"

using ostrel::OstrelDaemonSession;
using ostrel::OstrelDaemonSessNotification;
using ostrel::PlistValue;

namespace {

// The object that hears of results. Its one operation is known by its run-time name.
class Printer final : public ostrel::OstrelDaemonSessTarget {
 public:
  bool respondsTo(std::string_view operation) const override { return operation == "printResult:"; }

  void perform(std::string_view /*operation*/, OstrelDaemonSessNotification& told) override {
    const PlistValue& details = told.userInfo;
    const std::string name(details.get("name").stringValue());
    if (name == "ResourceDidBeginLoading") return;
    std::string text = "cancelled";
    if (name == "ResourceDidFinishLoading") text = details.get("response").description();
    if (name == "ResourceDidFailLoadingWithReason") text = details.get("reason").stringValue();
    std::printf("%s: %s\n", details.get("transactionNb").description().c_str(), text.c_str());
    std::fflush(stdout);
  }
};

// Whole lines out of a descriptor, as they come.
class Lines {
 public:
  // False at the end of the input.
  bool read(int descriptor) {
    char buffer[4096];
    const ssize_t size = ::read(descriptor, buffer, sizeof buffer);
    if (size < 0) return errno == EINTR || errno == EAGAIN;
    text_.append(buffer, static_cast<std::size_t>(size));
    return size > 0;
  }
  bool next(std::string& line) {
    const std::size_t end = text_.find('\n');
    if (end == std::string::npos) return false;
    line = text_.substr(0, end);
    text_.erase(0, end + 1);
    return true;
  }

 private:
  std::string text_;
};

void act(OstrelDaemonSession& session, const std::string& line) {
  if (line.empty()) return;
  if (line == "cancel") return session.cancelAsyncRequests();
  session.sendAsyncRequest(PlistValue::dictionaryOf({{"command", line}}));
}

}  // namespace

int main(int argc, char** argv) {
  std::string identifier;
  if (argc != 5 || !std::getline(std::ifstream(argv[3]), identifier)) {
    std::fprintf(stderr, "usage: %s HOST PORT SESSION-FILE MODULE\n", argv[0]);
    return 2;
  }
  const auto session =
      OstrelDaemonSession::initWithServiceSessionID(argv[4], std::make_shared<Printer>(), "printResult:", identifier);
  session->setHost(argv[1]);
  session->setPort(argv[2]);
  session->setUseTimeoutForTransactions(true);

  ostrel::MainEventLoop& loop = ostrel::MainEventLoop::shared();
  Lines lines;
  bool inputIsOpen = true;
  while (inputIsOpen || session->pendingRequestsCount() > 0) {
    // The loop's descriptor is one among those of the program; -1 is passed over.
    pollfd watched[] = {{loop.descriptor(), POLLIN, 0}, {inputIsOpen ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(watched, 2, -1) < 0 && errno != EINTR) return 1;
    if (watched[0].revents != 0) loop.processPending();
    if (watched[1].revents != 0) inputIsOpen = lines.read(STDIN_FILENO);
    for (std::string line; lines.next(line);) act(*session, line);
  }
  session->deinit();
}
