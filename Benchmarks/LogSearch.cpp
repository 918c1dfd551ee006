// The filtered log search beside the command-line tools that an administrator would use, on a log of 200 MB in the
// page cache. Each comparison is wall time: our call, and the peer's process from its start to its end, in turns.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "DaemonServices/LogTail.h"

using namespace ostrel;

namespace {

constexpr std::uint64_t logSize = 200'000'000;
constexpr int rounds = 21;

using Seconds = std::chrono::duration<double>;

/// A folder that goes away with what is in it.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrel-log-search-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    path = pattern;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::filesystem::path path;
};

/// Lines as a mail and web host logs them. One line in ten tells of a refused connection, one in 100,000 of a stalled
/// volume; none holds "segfault".
void writeLog(const std::string& path) {
  static constexpr std::array<const char*, 8> messages = {
      "accepted publickey for operator from %s port %u ssh2: RSA SHA256:%08x%08x",
      "statistics: max connection rate 1/60s for (smtp:%s) at Nov 22 %02u, id %08x%08x",
      "client %s connected on port %u, session %08x%08x opened by (uid=0)",
      "GET /images/%s/logo.png HTTP/1.1 200 %u \"Mozilla/5.0\" id=%08x%08x",
      "warning: hostname %s does not resolve, retry %u of lookup %08x%08x",
      "lease of %s renewed for %u seconds, transaction %08x%08x",
      "removed session of %s after %u seconds of idle time, key %08x%08x",
      "message from <list@%s>, size=%u, queued as %08x%08x"};
  std::mt19937 random(20110815);
  std::ofstream log(path, std::ios::binary);
  std::uint64_t written = 0;
  for (unsigned line = 1; written < logSize; ++line) {
    std::array<char, 512> text;
    std::array<char, 32> host;
    std::snprintf(host.data(), host.size(), "10.%u.%u.%u", random() % 256, random() % 256, random() % 256);
    int size = std::snprintf(text.data(), text.size(), "Nov 22 %02u:%02u:%02u host daemon[%u]: ", line / 90000 % 24,
                             line / 1500 % 60, line / 25 % 60, static_cast<unsigned>(300 + random() % 5000));
    const auto room = text.size() - static_cast<std::size_t>(size);
    if (line % 100'000 == 50'000) {
      size += std::snprintf(text.data() + size, room, "Volume %s Stalled for %u seconds\n", host.data(), line);
    } else if (line % 10 == 0) {
      size += std::snprintf(text.data() + size, room, "Connection from %s Refused on port %u\n", host.data(), line);
    } else {
      size += std::snprintf(text.data() + size, room, messages[random() % messages.size()], host.data(),
                            static_cast<unsigned>(random() % 65536), static_cast<unsigned>(random()),
                            static_cast<unsigned>(random()));
      text[static_cast<std::size_t>(size++)] = '\n';
    }
    log.write(text.data(), size);
    written += static_cast<std::uint64_t>(size);
  }
  if (!log.flush()) throw std::runtime_error("cannot write the log");
}

Seconds timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - start;
}

double median(std::vector<double> values) {
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
  return values[values.size() / 2];
}

/// Runs a program with its output in a file. Throws unless it ends with one of the two statuses (searchers end with 1
/// when they found nothing).
void runProgram(std::vector<std::string> arguments, const std::string& output) {
  std::vector<char*> vector;
  for (std::string& argument : arguments) vector.push_back(argument.data());
  vector.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t child = 0;
  const int failure = posix_spawnp(&child, vector[0], &actions, nullptr, vector.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (failure != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) > 1)
    throw std::runtime_error("cannot run " + arguments[0]);
}

struct Case {
  const char* name;
  std::vector<std::string> filters;
  std::uint64_t amount;
  std::vector<std::string> peer;
  const char* peerName;
  double goal;  ///< our time over the peer's, at most
};

std::size_t searchLog(const std::string& path, const Case& searched) {
  PlistValue filters = PlistValue::mutableArray();
  for (const std::string& filter : searched.filters) filters.append(filter);
  PlistValue offset = 0;
  PlistValue amount = searched.amount;
  PlistValue contents;
  const char* error = do_get_filtered_file_contents(path, offset, amount, contents, {}, filters);
  if (error != nullptr || !contents.isString()) throw std::runtime_error("the search failed");
  return static_cast<std::size_t>(std::ranges::count(contents.stringValue(), '\n'));
}

std::size_t linesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
}

/// True when the goal is met.
bool compare(const std::string& log, const std::string& output, const Case& compared) {
  std::vector<double> ours;
  std::vector<double> theirs;
  std::vector<double> ratios;
  std::size_t found = 0;
  for (int round = 0; round < rounds; ++round) {
    ours.push_back(timed([&] { found = searchLog(log, compared); }).count());
    theirs.push_back(timed([&] { runProgram(compared.peer, output); }).count());
    ratios.push_back(ours.back() / theirs.back());
  }
  const std::size_t expected = linesOf(output);
  // Cut at a byte limit, the two may differ by the line that is cut.
  const std::size_t difference = found > expected ? found - expected : expected - found;
  if (difference > 1) throw std::runtime_error("the search and its peer found different lines");
  const double ratio = median(ratios);
  std::printf("| %-26s | %-34s | %9.3f | %9.3f | %6.3f | %5.2f |%s\n", compared.name, compared.peerName,
              median(ours) * 1e3, median(theirs) * 1e3, ratio, compared.goal, ratio <= compared.goal ? "" : " MISSED");
  return ratio <= compared.goal;
}

}  // namespace

int main() try {
  setenv("LC_ALL", "C", 1);  // the faster locale for the peers
  const Folder folder;
  const std::string log = folder.path / "system.log";
  const std::string output = folder.path / "output";
  writeLog(log);

  const std::string pipeline = "tac '" + log + "' | grep -i -F refused | grep -i -F port | head -c 65536";
  const std::vector<Case> cases = {
      {"no match", {"segfault", "host"}, 1 << 20, {"rg", "--no-config", "-i", "-F", "segfault", log}, "rg -i -F", 1},
      {"no match, counted",
       {"segfault", "host"},
       1 << 20,
       {"rg", "--no-config", "-c", "-i", "-F", "segfault", log},
       "rg -i -F -c",
       1},
      {"1 line in 100,000",
       {"stalled", "volume"},
       1 << 20,
       {"rg", "--no-config", "-i", "-F", "stalled", log},
       "rg -i -F",
       1},
      {"1 line in 10, last 64 KiB",
       {"refused", "port"},
       1 << 16,
       {"sh", "-c", pipeline},
       "tac | grep | grep | head",
       0.05}};
  std::printf(
      "| search                     | peer                               |   ours ms |   peer ms |  ratio |  goal |\n");
  std::printf(
      "|----------------------------|------------------------------------|-----------|-----------|--------|-------|\n");
  bool met = true;
  for (const Case& each : cases) met = compare(log, output, each) && met;
  return met ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return EXIT_FAILURE;
}
