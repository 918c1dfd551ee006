#include "ConfigFiles/SyslogUtilities.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "ConfigFiles/Internal/TextLines.h"
#include "Containers/Format.h"
#include "DaemonServices/ProcessControl.h"
#include "Platform/HostRoot.h"
#include "Platform/ProcessSignals.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr const char* defaultPath = "/etc/syslog.conf";
constexpr const char* loggerPidFile = "/var/run/syslogd.pid";
constexpr const char* loggerName = "syslogd";
constexpr std::string_view logFolder = "/var/log";
constexpr std::int32_t facilityBits = 0x3F8;
constexpr std::int32_t everyFacility = 1016;
constexpr std::size_t everyFacilityIndex = 25;
constexpr std::size_t tabsToAction = 7;  // it stands in column 56

std::size_t indexOf(std::int32_t facility) {
  if (facility == everyFacility) return everyFacilityIndex;
  return static_cast<std::size_t>((facility & facilityBits) >> 3);
}

std::int32_t facilityAt(std::size_t index) {
  return index == everyFacilityIndex ? everyFacility : static_cast<std::int32_t>(index * 8);
}

bool isAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string lineFor(const PlistValue& facilityName, const PlistValue& levelName, const PlistValue& action) {
  const std::string selector = format("%@.%@", facilityName, levelName);
  const std::string tabs(tabsToAction - std::min(selector.size() / 8, tabsToAction), '\t');
  std::string line = format("%@%@%@", selector, tabs, action);
  logNotice("new syslog line:\n%@\n", line);
  return line;
}

// A line of our own is the last of those that read alike.
template <class Lines>
auto findOwnLine(Lines& lines, const PlistValue& line) {
  const auto found = std::find(lines.rbegin(), lines.rend(), line);
  return found == lines.rend() ? lines.end() : std::prev(found.base());
}

}  // namespace

_Selector::_Selector(std::int32_t level, PlistValue action, PlistValue line, bool solitary)
    : _solitary(solitary), _line(std::move(line)), _level(level), _action(std::move(action)) {}

void _Selector::setLevel(std::int32_t level) {
  _level = level;
  _levelString = PlistValue();
}

PlistValue _Selector::levelString() const {
  if (_levelString.isNull()) _levelString = SyslogUtilities::stringForSyslogLevel(_level);
  return _levelString;
}

std::string _Selector::description() const { return format("%@: [%@] - (%@)", "<_Selector>", levelString(), _action); }

SyslogUtilities::SyslogUtilities(const PlistValue& path)
    : _configPath(path.isString() ? std::string(path.stringValue()) : hostPath(defaultPath)) {}

void SyslogUtilities::readIfNeeded() {
  if (!wasRead_) read();
}

void SyslogUtilities::read() {
  wasRead_ = true;
  _selectors.fill(std::nullopt);
  _lines.clear();
  const auto text = detail::readConfigurationText(_configPath);
  isReadable_ = text || errno == ENOENT;
  if (!text) return;
  for (const std::string_view line : detail::linesOf(*text)) _lines.emplace_back(line);
  while (!_lines.empty() && _lines.back().stringValue().empty()) _lines.pop_back();
  for (const PlistValue& line : _lines) parseLine(line);
}

void SyslogUtilities::parseLine(const PlistValue& line) {
  std::string_view rest = line.stringValue();
  rest = rest.substr(0, rest.find('#'));
  // One white-space character before the selectors does not count, whatever its kind; words skip blanks themselves.
  if (rest.find_first_of("\r\v\f") == 0) rest.remove_prefix(1);
  const std::string_view selectors = detail::takeWord(rest);
  const std::string_view action = detail::takeWord(rest);
  if (action.empty()) return;
  const PlistValue sharedAction(action);
  for (const std::string_view selector : detail::splitAt(selectors, ";")) parseSelector(selector, sharedAction, line);
}

void SyslogUtilities::parseSelector(std::string_view selector, const PlistValue& action, const PlistValue& line) {
  const std::size_t point = selector.find('.');
  if (point == std::string_view::npos) return;
  const std::int32_t level = syslogLevelForString(selector.substr(point + 1));
  if (level < 0) return;
  for (const std::string_view facilityName : detail::splitAt(selector.substr(0, point), ",")) {
    const std::int32_t facility = syslogFacilityForString(facilityName);
    std::optional<Selectors>* slot = facility < 0 ? nullptr : slotOf(facility);
    if (slot == nullptr) continue;
    if (!*slot) slot->emplace();
    // Meant: never solitary, though it may be the only one of its line.
    (*slot)->emplace_back(level, action, line, false);
  }
}

std::optional<SyslogUtilities::Selectors>* SyslogUtilities::slotOf(std::int32_t facility) {
  const std::size_t index = indexOf(facility);
  return index < _selectors.size() ? &_selectors[index] : nullptr;
}

std::int32_t SyslogUtilities::levelForFacility(std::int32_t facility) {
  readIfNeeded();
  const std::optional<Selectors>* slot = slotOf(facility);
  std::int32_t highest = -1;
  if (slot == nullptr || !*slot) return highest;
  for (const _Selector& selector : **slot) {
    if (!selector.action().stringValue().starts_with(logFolder)) continue;
    if (selector.solitary()) return selector.level();
    highest = std::max(highest, selector.level());
  }
  return highest;
}

PlistValue SyslogUtilities::levelNameForFacilityName(const PlistValue& facilityName) {
  const std::int32_t level = levelForFacility(syslogFacilityForString(facilityName));
  return level == 7 ? PlistValue("debug") : stringForSyslogLevel(level);
}

PlistValue SyslogUtilities::actionsForFacility(std::int32_t facility, std::int32_t level) {
  readIfNeeded();
  const std::optional<Selectors>* slot = slotOf(facility);
  if (slot == nullptr || !*slot) return {};
  PlistValue actions = PlistValue::mutableArray();
  for (const _Selector& selector : **slot) {
    if (selector.level() >= level) actions.append(selector.action());
  }
  return actions.count() == 0 ? PlistValue() : actions;
}

bool SyslogUtilities::setLevel(std::int32_t level, std::int32_t facility, const PlistValue& action) {
  if (action.isNull()) return removeActionsForFacility(facility);
  readIfNeeded();
  const PlistValue levelName = stringForSyslogLevel(level);
  const PlistValue facilityName = stringForSyslogFacility(facility);
  if (levelName.isNull() || facilityName.isNull()) return false;
  if (action.stringValue().empty() || !detail::fitsOneLine(action) || !isAscii(action.stringValue())) return false;

  const PlistValue newLine(lineFor(facilityName, levelName, action));
  std::optional<Selectors>& slot = *slotOf(facility);
  if (!slot) slot.emplace();
  bool found = false;
  bool changed = false;
  for (_Selector& selector : *slot) {
    if (!selector.solitary() || selector.action() != action) continue;
    found = true;
    if (selector.level() == level) continue;
    const auto line = findOwnLine(_lines, selector.line());
    if (line == _lines.end())
      _lines.push_back(newLine);
    else
      *line = newLine;
    selector.setLevel(level);
    selector.setLine(newLine);
    changed = true;
  }
  if (!found) {
    slot->emplace_back(level, action, newLine, true);
    _lines.push_back(newLine);
    changed = true;
  }
  _dirty = _dirty || changed;
  return changed;
}

bool SyslogUtilities::setLevelName(const PlistValue& levelName, const PlistValue& facilityName,
                                   const PlistValue& action) {
  return setLevel(syslogLevelForString(levelName), syslogFacilityForString(facilityName), action);
}

bool SyslogUtilities::removeActionsForFacility(std::int32_t facility) {
  readIfNeeded();
  std::optional<Selectors>* slot = slotOf(facility);
  if (slot == nullptr || !*slot) return false;
  for (const _Selector& selector : **slot) {
    if (!selector.solitary()) continue;
    const auto line = findOwnLine(_lines, selector.line());
    if (line != _lines.end()) _lines.erase(line);
  }
  slot->reset();
  _dirty = true;
  return true;
}

bool SyslogUtilities::removeActionsForFacilityName(const PlistValue& facilityName) {
  return removeActionsForFacility(syslogFacilityForString(facilityName));
}

std::string SyslogUtilities::joinedLines() const {
  std::string text;
  for (const PlistValue& line : _lines) text.append(&line == &_lines.front() ? "" : "\n").append(line.stringValue());
  return text.ends_with('\n') ? text : text + '\n';
}

std::optional<FileChange> SyslogUtilities::change() {
  readIfNeeded();
  auto present = detail::readConfigurationText(_configPath);
  const bool isThereOrMissing = present || errno == ENOENT;
  std::string text = joinedLines();
  if (!isReadable_ || !isThereOrMissing || !isAscii(text)) return std::nullopt;
  return detail::readableChange(_configPath, std::move(present), std::move(text));
}

bool SyslogUtilities::recycle() {
  if (!_dirty) {
    read();
    return true;
  }
  const MutexLock lock(detail::editing());
  const auto due = change();
  if (!due || !due->write()) return false;
  const std::string pidFile = hostPath(loggerPidFile);
  const pid_t pid = ec_pid_from_pid_file_or_process_named(pidFile.c_str(), loggerName);
  if (pid < 1) return false;
  // Meant: whether the signal could be sent is not asked.
  if (const auto logger = ProcessTable::current().find(pid)) ProcessSignals::current().send(logger->identity(), SIGHUP);
  return true;
}

std::string SyslogUtilities::description() {
  readIfNeeded();
  std::string text = format("%@: [%@]\n", "<SyslogUtilities>", _configPath);
  for (std::size_t index = _selectors.size(); index-- > 0;) {
    if (!_selectors[index]) continue;
    const PlistValue name = stringForSyslogFacility(facilityAt(index));
    for (const _Selector& selector : *_selectors[index]) text += format("\t%@ = %@\n", name, selector.description());
  }
  return text;
}

}  // namespace ostrel
