#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

#include "Platform/Internal/ProcessText.h"

namespace ostrel::detail {
namespace {

/// Takes the fields of a line one by one; they are parted by single blanks.
class Fields {
 public:
  explicit Fields(std::string_view text) noexcept : rest_(text) {}

  std::string_view next() noexcept {
    std::size_t size = 0;
    while (size < rest_.size() && rest_[size] != ' ' && rest_[size] != '\n') ++size;
    const std::string_view field = rest_.substr(0, size);
    rest_.remove_prefix(std::min(size + 1, rest_.size()));
    return field;
  }
  template <class Integer>
  bool next(Integer& number) noexcept {
    const std::string_view field = next();
    const auto [end, fault] = std::from_chars(field.data(), field.data() + field.size(), number);
    return fault == std::errc() && end == field.data() + field.size();
  }
  void skip(std::size_t count) noexcept {
    std::size_t at = 0;
    for (; count > 0 && at < rest_.size(); ++at) count -= rest_[at] == ' ' ? 1U : 0U;
    rest_.remove_prefix(at);
  }
  bool atEnd() const noexcept { return rest_.empty(); }

 private:
  std::string_view rest_;
};

ProcessState stateOf(char letter) noexcept {
  switch (letter) {
    case 'R':
      return ProcessState::running;
    case 'S':
    case 'D':
    case 'I':  // an idle thread of the kernel
    case 'P':
    case 'K':
    case 'W':
      return ProcessState::sleeping;
    case 'T':
    case 't':
      return ProcessState::stopped;
    case 'Z':
      return ProcessState::zombie;
    default:
      return ProcessState::none;
  }
}

/// The place of the last `byte`. Unlike `rfind`, many bytes at a step: this runs for every process of a table.
std::size_t findLast(std::string_view text, char byte) noexcept {
  if (text.empty()) return std::string_view::npos;
  const void* found = ::memrchr(text.data(), byte, text.size());
  return found == nullptr ? std::string_view::npos
                          : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

/// "cpu" and a number, but not the line that sums all up.
bool isProcessorLine(std::string_view line) noexcept {
  return line.size() > 3 && line.starts_with("cpu") && isDigit(line[3]);
}

bool readTicks(std::string_view line, ProcessorTicks& ticks) noexcept {
  Fields fields(line);
  fields.skip(1);
  if (!fields.next(ticks.user) || !fields.next(ticks.nice) || !fields.next(ticks.system) || !fields.next(ticks.idle))
    return false;
  // Old kernels end here.
  std::uint64_t diskWait = 0;
  std::uint64_t interrupts = 0;
  std::uint64_t softInterrupts = 0;
  if (fields.atEnd()) return true;
  if (!fields.next(diskWait) || !fields.next(interrupts) || !fields.next(softInterrupts)) return false;
  ticks.idle += diskWait;
  ticks.system += interrupts + softInterrupts;
  return true;
}

}  // namespace

std::optional<ProcessEntry> parseProcessStat(std::string_view text) noexcept {
  constexpr std::size_t fieldsBetweenParentAndStart = 17;
  const std::size_t open = text.find(" (");
  const std::size_t close = findLast(text, ')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open + 2 ||
      !text.substr(close + 1).starts_with(' '))
    return std::nullopt;
  ProcessEntry entry;
  if (!Fields(text.substr(0, open)).next(entry.pid) || entry.pid < 1) return std::nullopt;

  Fields fields(text.substr(close + 2));
  const std::string_view state = fields.next();
  if (state.size() != 1 || !fields.next(entry.parent)) return std::nullopt;
  fields.skip(fieldsBetweenParentAndStart);
  if (!fields.next(entry.started)) return std::nullopt;
  entry.state = stateOf(state[0]);

  const std::string_view command = text.substr(open + 2, close - open - 2);
  std::memcpy(entry.command, command.data(), std::min(command.size(), sizeof entry.command - 1));
  return entry;
}

pid_t parseThreadGroup(std::string_view text) noexcept {
  // The first line, the name, has its line feeds escaped by the kernel.
  constexpr std::string_view label = "\nTgid:\t";
  const std::size_t found = text.find(label);
  pid_t group = 0;
  if (found == std::string_view::npos || !Fields(text.substr(found + label.size())).next(group)) return 0;
  return group;
}

std::vector<ProcessorTicks> parseProcessorTicks(std::string_view text) {
  std::vector<ProcessorTicks> processors;
  while (text.starts_with("cpu")) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (!isProcessorLine(line)) continue;
    ProcessorTicks ticks;
    if (!readTicks(line, ticks)) return {};
    processors.push_back(ticks);
  }
  return processors;
}

std::string_view programName(std::string_view path) noexcept {
  constexpr std::string_view removed = " (deleted)";
  if (path.ends_with(removed)) path.remove_suffix(removed.size());
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

}  // namespace ostrel::detail
