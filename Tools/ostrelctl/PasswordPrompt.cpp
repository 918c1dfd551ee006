#include "ostrelctl/PasswordPrompt.h"

#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>

#include "Containers/Format.h"
#include "Containers/Utf8.h"
#include "Platform/DirectoryNode.h"
#include "Platform/FileDescriptor.h"
#include "ostrelctl/RequestArguments.h"

namespace ostrel {
namespace {

constexpr std::size_t shortestPassword = 8;
constexpr std::size_t longestPassword = 511;
constexpr std::size_t fewestCharacters = 4;

std::string firstLine(const std::string& text) { return text.substr(0, text.find_first_of("\r\n")); }

volatile sig_atomic_t signalThatCame = 0;

/// A signal that would end the program while the terminal shows nothing ends the question instead, and is raised again
/// once the terminal is as it was.
class SignalsHeldBack {
 public:
  SignalsHeldBack() {
    signalThatCame = 0;
    struct sigaction note {};
    note.sa_handler = [](int number) { signalThatCame = number; };
    for (std::size_t at = 0; at < numbers.size(); ++at) sigaction(numbers[at], &note, &before_[at]);
  }
  ~SignalsHeldBack() {
    for (std::size_t at = 0; at < numbers.size(); ++at) sigaction(numbers[at], &before_[at], nullptr);
    if (signalThatCame != 0) raise(signalThatCame);
  }
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

 private:
  static constexpr std::array numbers{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  std::array<struct sigaction, numbers.size()> before_{};
};

std::optional<std::string> askOnTerminal(const std::string& question, const char* option, std::string& fault) {
  const FileDescriptor terminal = openFile("/dev/tty", O_RDWR | O_NOCTTY);
  termios before{};
  if (!terminal || tcgetattr(terminal.get(), &before) != 0) {
    fault = format("there is no terminal to ask for the password on: use %s", option);
    return std::nullopt;
  }
  char line[1024];
  ssize_t size = 0;
  {
    const SignalsHeldBack signals;
    termios hidden = before;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    writeFully(terminal.get(), question);
    tcsetattr(terminal.get(), TCSAFLUSH, &hidden);
    size = read(terminal.get(), line, sizeof line);  // ended by a signal, it is not tried again
    tcsetattr(terminal.get(), TCSAFLUSH, &before);
    writeFully(terminal.get(), "\n");
  }
  if (size > 0) return firstLine(std::string(line, static_cast<std::size_t>(size)));
  fault = "no password was given";
  return std::nullopt;
}

std::optional<std::string> firstLineOf(const std::string& file, std::string& fault) {
  const auto content = contentOf(file, fault);
  return content ? std::optional(firstLine(*content)) : std::nullopt;
}

std::optional<std::string> faultOf(const std::string& password, const std::string& user) {
  if (password.size() < shortestPassword) return format("it has fewer than %d bytes", shortestPassword);
  if (password.size() > longestPassword) return format("it has more than %d bytes", longestPassword);
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  if (!isValidUtf8(password) || std::ranges::any_of(password, isControl)) return "it is no UTF-8 text";
  if (std::set<char>(password.begin(), password.end()).size() < fewestCharacters) {
    return format("it has fewer than %d different characters", fewestCharacters);
  }
  if (foldedCase(password) == foldedCase(user)) return "it is the user's name";
  return std::nullopt;
}

}  // namespace

std::optional<std::string> passwordOf(const std::string& user, const std::string& file, std::string& fault,
                                      const char* option) {
  return file.empty() ? askOnTerminal(format("Password of %s: ", user), option, fault) : firstLineOf(file, fault);
}

std::optional<std::string> newPasswordOf(const std::string& user, const std::string& file, std::string& fault,
                                         const char* option) {
  auto password =
      file.empty() ? askOnTerminal(format("New password of %s: ", user), option, fault) : firstLineOf(file, fault);
  if (!password) return std::nullopt;
  if (const auto reason = faultOf(*password, user)) {
    fault = format("the password cannot be used: %s", *reason);
    return std::nullopt;
  }
  if (!file.empty()) return password;
  const auto again = askOnTerminal("Once more: ", option, fault);
  if (!again) return std::nullopt;
  if (*again == *password) return password;
  fault = "the two passwords differ";
  return std::nullopt;
}

}  // namespace ostrel
