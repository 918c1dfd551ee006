// One service's file of the super-server xinetd: its settings read and changed, its server's arguments, and a reload.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ConfigFiles/FileChange.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Containers/SysLogger.h"

namespace ostrel {

/// The file "/etc/xinetd.d/SERVICE" below the host root, format of xinetd.conf(5): after a line "service NAME" and a
/// line "{", lines of a key, an operator and a value up to a line "}". Names and keys are compared to the letter. Empty
/// lines and those that begin with "#" are passed over. A line of a single character is read, and written back, with
/// two spaces behind it.
///
/// Names, keys and values are string values; another kind counts as absent. A service name that is no file's name
/// ("", ".", "..", or with "/" or NUL in it) has no file. A file that is missing, no regular file, not UTF-8 or larger
/// than 4 MiB cannot be read, and is never written.
///
/// What happens goes to the system log under the prefix.
///
/// Threads: one object on one thread at a time; writers in this process take turns. Blocks on the disk. Nothing throws
/// but std::bad_alloc.
class OSTREL_EXPORT XinetdUtilities {
 public:
  /// `initWithServiceName:logPrefix:` Reads "/var/run/xinetd.pid", for `hup`.
  XinetdUtilities(const PlistValue& serviceName, const PlistValue& logPrefix);
  /// `xinetdUtilitiesWithServiceName:logPrefix:`
  static std::shared_ptr<XinetdUtilities> xinetdUtilitiesWithServiceName(const PlistValue& serviceName,
                                                                         const PlistValue& logPrefix);

  /// `serviceName`, `setServiceName:` The name that is looked for in the file. The file stays that of the name given
  /// when the object was made.
  const PlistValue& serviceName() const { return fServiceName; }
  void setServiceName(PlistValue serviceName) { fServiceName.swap(serviceName); }

  /// `getValueForKey:value:` The value of the first entry for `key` in the service's blocks; "" when there is none,
  /// which is true as well. The block's brace may stand on the header's line. False, with `value` left alone, when
  /// `key` or `value` is absent or the file cannot be read.
  bool getValueForKey(const PlistValue& key, PlistValue* value) const;

  /// `setOrAddEntryForKey:newValue:` Replaces the first entry for `key`, keeping its operator, or adds one before the
  /// closing brace. When the entry says `newValue` already, nothing is written and the result is true. So it is when
  /// the file holds no such service, or only one with its brace on the header's line, which this never changes.
  ///
  /// Meant: after an entry was added, the rest of the file counts as this block, other services included. So does the
  /// first block that comes after a header without a brace of its own line, whatever headers stand between.
  ///
  /// False, with the file left alone, when `key` or `newValue` is absent or does not fit one line, when `key` is not
  /// one word or begins with "#" or a brace, when the file cannot be read or replaced, or would become larger than
  /// 4 MiB. Owner, group and mode are kept, links are followed.
  bool setOrAddEntryForKey(const PlistValue& key, const PlistValue& newValue);
  /// `removeEntryForKey:` Removes the entries for `key` from the service's block; otherwise as above, except that any
  /// string is taken for a key. Meant: when there is none in that block, the rest of the file counts as this block.
  bool removeEntryForKey(const PlistValue& key);

  /// What these two would write, without writing or logging it; absent where they would fail before.
  std::optional<FileChange> changeOfEntryForKey(const PlistValue& key, const PlistValue& newValue) const;
  std::optional<FileChange> changeWithoutEntryForKey(const PlistValue& key) const;

  /// `argListFromDictionary:` A server's argument string: the value for "path", then "-KEY VALUE" for strings, "-KEY"
  /// for what is true, "-KEY VALUE" for each element of an array, in the dictionary's order and each with a space
  /// behind it. Other kinds are left out with a warning. Null for what is no dictionary.
  PlistValue argListFromDictionary(const PlistValue& dictionary) const;
  /// `dictionaryFromArgList:` The other way: a mutable dictionary of option letters. An option without a value is true,
  /// one with several values an array. What belongs to no option is passed over. Null for what is no string.
  PlistValue dictionaryFromArgList(const PlistValue& argList) const;

  /// `hup` Sends SIGHUP to the process whose id was read when the object was made, so that it reads its files again;
  /// starts xinetd when there was no id. False when nobody could be signalled or started.
  bool hup() const;
  /// `_launchXinetd` Starts "/usr/sbin/xinetd" (below the host root) and returns; true when it was started.
  static bool _launchXinetd();

 private:
  struct Plan;
  std::optional<Plan> planEntry(const PlistValue& key, const PlistValue& newValue) const;
  std::optional<Plan> planRemoval(const PlistValue& key) const;
  void storeOption(PlistValue options, const PlistValue& argList, std::string_view option,
                   const PlistValue& value) const;

  PlistValue fServiceName;
  std::string fFilePath;
  std::string fWhiteSpace = " \t";
  PlistValue fPid;
  std::shared_ptr<SysLogger> fLogger;
};

}  // namespace ostrel
