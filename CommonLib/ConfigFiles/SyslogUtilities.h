// The system logger's configuration file: which facility is logged where and how verbosely, read and changed.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ConfigFiles/FileChange.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// A row of the name tables. The last row of a table has a null name and the number -1.
struct SyslogName {
  const char* name;
  std::int32_t number;
};

/// The level names: 0 (most severe) to 7 (debug), and 16 for "none". From number to name the first row counts.
extern OSTREL_EXPORT const SyslogName _SU_prioritynames[13];
/// The facility names: the facility's number times 8.
extern OSTREL_EXPORT const SyslogName _SU_facilitynames[28];

/// What one line of the file says for one facility: messages of this level and more severe ones go to this action.
/// Threads: one object on one thread at a time.
class OSTREL_EXPORT _Selector {
 public:
  /// `initWithLevel:action:line:solitary:` A solitary selector is the only one of its line, and ours to change.
  _Selector(std::int32_t level, PlistValue action, PlistValue line, bool solitary);

  /// `line`, `setLine:` The whole line of the file that holds the selector.
  const PlistValue& line() const { return _line; }
  void setLine(PlistValue line) { _line.swap(line); }
  /// `level`, `setLevel:`
  std::int32_t level() const { return _level; }
  void setLevel(std::int32_t level);
  /// `action` Where the messages go: the path of a file, as a rule.
  const PlistValue& action() const { return _action; }
  /// `solitary`
  bool solitary() const { return _solitary; }
  /// `levelString` The level as `stringForSyslogLevel` writes it; null when it has no name.
  PlistValue levelString() const;
  /// `description` "<_Selector>: [LEVEL] - (ACTION)"
  std::string description() const;

 private:
  bool _solitary;
  PlistValue _line;
  std::int32_t _level;
  mutable PlistValue _levelString;  // found when first asked for
  PlistValue _action;
};

/// The configuration file of syslogd(8), format of syslog.conf(5): lines of selectors ("mail,news.info;kern.*") and an
/// action. It is read when first needed; changes are made in memory, and `recycle` writes them.
///
/// Facilities are numbers as in the table above, 1016 ("*") for all; "mark" shares the place of "*". Names and actions
/// are string values; a name of another kind is unknown. An unreadable file, one that is not UTF-8 or larger than 4 MiB
/// counts as empty, and is never overwritten. Levels with "=" or "!" are unknown, and what is unknown is passed over.
///
/// Meant: selectors that were read are never solitary. They are neither changed nor removed; `setLevel` adds a line of
/// its own beside them. Only such lines change later, and only through the object that made them.
///
/// Threads: one object on one thread at a time. Blocks on the disk. Nothing throws but std::bad_alloc.
class OSTREL_EXPORT SyslogUtilities {
 public:
  /// `init`, `initWithPath:` The file at `path`, taken as it is; null for "/etc/syslog.conf" below the host root.
  explicit SyslogUtilities(const PlistValue& path = {});

  /// `syslogLevelForString:`, `syslogFacilityForString:` The number of a name in any letter case, -1 when unknown.
  /// "*" is 7 for levels and 1016 for facilities.
  static std::int32_t syslogLevelForString(const PlistValue& name);
  static std::int32_t syslogFacilityForString(const PlistValue& name);
  /// `stringForSyslogLevel:`, `stringForSyslogFacility:` The name of a number, null when it has none; 7 and 1016
  /// are "*".
  static PlistValue stringForSyslogLevel(std::int32_t level);
  static PlistValue stringForSyslogFacility(std::int32_t facility);

  /// `levelForFacility:` The level at which a facility is logged to files below "/var/log": that of the first solitary
  /// selector, otherwise the highest number ("none" counts as 16); -1 when there is none.
  std::int32_t levelForFacility(std::int32_t facility);
  /// `levelNameForFacilityName:` The same by names: 7 is "debug", -1 is null.
  PlistValue levelNameForFacilityName(const PlistValue& facilityName);

  /// `actionsForFacility:level:` The actions of the selectors whose level number is at least `level`, in the order of
  /// the file: an array of strings, null when there are none.
  PlistValue actionsForFacility(std::int32_t facility, std::int32_t level);

  /// `setLevel:forFacility:action:` Makes the facility's own line for `action` say `level`; adds the line at the end
  /// when there is none. Null for `action` is `removeActionsForFacility`. True when something changed. False when all
  /// was so already, and when level or facility has no name or the action is no text, is empty, does not fit one line
  /// or is not ASCII.
  bool setLevel(std::int32_t level, std::int32_t facility, const PlistValue& action);
  /// `setLevelName:forFacilityName:action:`
  bool setLevelName(const PlistValue& levelName, const PlistValue& facilityName, const PlistValue& action);

  /// `removeActionsForFacility:` Removes the facility's own lines. Meant: its other selectors are forgotten, but their
  /// lines stay in the file. False when it has no selectors.
  bool removeActionsForFacility(std::int32_t facility);
  /// `removeActionsForFacilityName:`
  bool removeActionsForFacilityName(const PlistValue& facilityName);

  /// `recycle` Writes the changes and sends the logger SIGHUP, so that it reads the file again. The logger is the
  /// process of "/var/run/syslogd.pid" if that is called "syslogd", or without such a file the first process of that
  /// name. Without changes the file is read again, and the result is true. Meant: changes stay due for the next call.
  ///
  /// False when there is no logger; when the file cannot be written, in which case nothing is signalled: it could not
  /// be read, or its text is not 7-bit ASCII or larger than 4 MiB. Meant: true also when a logger was found that cannot
  /// be signalled. Owner, group and mode are kept, links are followed.
  bool recycle();

  /// What `recycle` would write if it were called now, without writing it; absent where it would fail before.
  std::optional<FileChange> change();

  /// `description` "<SyslogUtilities>: [PATH]", then a line for each selector from the last facility to the first.
  std::string description();

 private:
  using Selectors = std::vector<_Selector>;

  void read();
  void readIfNeeded();
  void parseLine(const PlistValue& line);
  void parseSelector(std::string_view selector, const PlistValue& action, const PlistValue& line);
  std::optional<Selectors>* slotOf(std::int32_t facility);
  std::string joinedLines() const;

  std::string _configPath;
  std::vector<PlistValue> _lines;
  std::array<std::optional<Selectors>, 26> _selectors;
  bool _dirty = false;
  bool wasRead_ = false;
  bool isReadable_ = true;  // or missing: a file that could not be read must not be replaced
};

}  // namespace ostrel
