// The host's start-up settings, "/etc/hostconfig": single settings read and set.
#pragma once

#include <memory>
#include <optional>

#include "ConfigFiles/FileChange.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// Lines "KEY=value" in the manner of shell variables. Values are taken and written as they are: quotes and dashes
/// ("-YES-") are the caller's.
///
/// Keys and values are string values; another kind counts as absent. The file is the one below the host root
/// (Platform/HostRoot.h).
///
/// Threads: no state; any thread. Two writers in this process take turns, so that neither loses the other's setting.
/// Blocks on the disk. Nothing throws but std::bad_alloc.
class OSTREL_EXPORT HostConfigUtilities {
 public:
  /// `hostConfigUtilities`
  static std::shared_ptr<HostConfigUtilities> hostConfigUtilities();

  /// `getValueForKey:value:` The first line that begins with `key` and "=" (spaces and tabs around the line do not
  /// matter) gives the value, which may be empty. True with "" when there is no such line, also when the file cannot be
  /// read. False, with `value` left alone, when `key` or `value` is absent, or when the line holds a second "=": then
  /// "Error: bad line in PATH:" and the line go to the log.
  bool getValueForKey(const PlistValue& key, PlistValue* value) const;

  /// `setOrAddEntryForKey:newValue:` Replaces every line that begins with `key` by "KEY=value", or adds that line at
  /// the end. Meant: "=" is not asked for, so that a key which begins a longer one replaces that one's line, too. All
  /// lines lose the spaces and tabs around them.
  ///
  /// False, with the file left alone, when the key or the value is absent, empty (the key only: it would begin every
  /// line) or does not fit one line; when the file is missing, unreadable, not UTF-8 or no regular file; when it cannot
  /// be replaced, or would become larger than 4 MiB. Owner, group and mode are kept, links are followed.
  bool setOrAddEntryForKey(const PlistValue& key, const PlistValue& newValue) const;

  /// What `setOrAddEntryForKey` would write, without writing it; absent where it would fail before.
  std::optional<FileChange> changeOfEntryForKey(const PlistValue& key, const PlistValue& newValue) const;
};

}  // namespace ostrel
