// A service's property-list settings file in memory: read, completed from defaults, converted from and to text,
// written.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "ConfigFiles/FileChange.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/SystemLog.h"

namespace ostrel {

/// What became of a file. The numbers are what modules tell their clients.
enum ConfigStatus : std::int32_t {
  kConfigStatusUnknownError = 50000,  ///< it is there and accessible, but could not be read or written
  kConfigStatusNotRead = 50001,       ///< not read yet
  kConfigStatusOK = 50002,            ///< read; for the write status: no write failed
  kConfigStatusNoPath = 50003,        ///< there is no path
  kConfigStatusFileNotFound = 50004,
  kConfigStatusNoAccess = 50005,  ///< it may not be read, or written
  kConfigStatusInvalidPlist = 50006,
};

/// Three files take part, each absent when its path is null:
/// - the configuration, a property list (XML or binary) of at most 64 MiB whose root is a dictionary;
/// - the types, a "strings" file in UTF-16 with a byte-order mark, from a setting's name to its type;
/// - the defaults, a property list like the configuration.
///
/// Types: "String", "Integer", "Real"; "Boolean" (yes and no) or "Boolean TRUEWORD FALSEWORD"; "Array TYPE" or
/// "Array TYPE SEPARATOR" (without: a space), in words parted by single spaces. A setting without a type is text as it
/// stands.
///
/// Paths, names, texts and types are string values; another kind counts as absent. Paths are taken as they are.
/// Nothing is raised but std::bad_alloc: each failure is a status, a log line "PROGRAM: OPERATION ..." and a text in
/// the error collection.
///
/// Threads: one object on one thread at a time. Values are shared with whoever gave or got them. Blocks on the disk.
class OSTREL_EXPORT ConfigurationParser {
 public:
  /// `initWithFile:`, `initWithFile:typesFile:defaultsFile:populateDefaults:` Loads the three files. With
  /// `populateDefaults`, a configuration that lacked a default is written at once. Meant: so is one that could not be
  /// read, which then holds the defaults only.
  explicit ConfigurationParser(const PlistValue& file, const PlistValue& typesFile = {},
                               const PlistValue& defaultsFile = {}, bool populateDefaults = false);
  /// `configurationParserWithFile:`, `configurationParserWithFile:typesFile:defaultsFile:populateDefaults:`
  static std::shared_ptr<ConfigurationParser> configurationParserWithFile(const PlistValue& file,
                                                                          const PlistValue& typesFile = {},
                                                                          const PlistValue& defaultsFile = {},
                                                                          bool populateDefaults = false);

  /// `dictionary`, `setDictionary:` The settings; an empty mutable dictionary is made where there is none.
  const PlistValue& dictionary();
  void setDictionary(PlistValue dictionary) { fDictionary.swap(dictionary); }
  /// `file`, `setFile:` The path of the configuration.
  const PlistValue& file() const { return fFile; }
  void setFile(PlistValue file) { fFile.swap(file); }
  /// `readStatus`, `setReadStatus:` A `ConfigStatus`: of the last read.
  std::int32_t readStatus() const { return fReadStatus; }
  void setReadStatus(std::int32_t status) { fReadStatus = status; }
  /// `writeStatus`, `setWriteStatus:` A `ConfigStatus`: of the last write that failed, or OK.
  std::int32_t writeStatus() const { return fWriteStatus; }
  void setWriteStatus(std::int32_t status) { fWriteStatus = status; }
  /// `typesDictionary`, `setTypesDictionary:` From name to type; may be null.
  const PlistValue& typesDictionary() const { return fTypesDictionary; }
  void setTypesDictionary(PlistValue types) { fTypesDictionary.swap(types); }
  /// `defaultsDictionary`, `setDefaultsDictionary:` May be null.
  const PlistValue& defaultsDictionary() const { return fDefaultsDictionary; }
  void setDefaultsDictionary(PlistValue defaults) { fDefaultsDictionary.swap(defaults); }
  /// `globalError`, `setGlobalError:` The only error's text; "multiple_errors" when there are more; "" without any.
  const PlistValue& globalError();
  void setGlobalError(PlistValue error) { fGlobalError.swap(error); }
  /// `errors`, `setErrors:` The texts in order when there are several; an empty mutable array is made where there is
  /// none.
  const PlistValue& errors();
  void setErrors(PlistValue errors) { fErrors.swap(errors); }

  /// `readFile` Replaces the settings by the file's, in mutable containers. False, with the settings as they were, when
  /// it cannot be read.
  bool readFile();
  /// `writeFile` Puts the settings into the file as an XML property list, whole or not at all. Owner, group and mode
  /// are kept, links are followed. False, with the file as it was, when it cannot be written or would become larger
  /// than is read.
  bool writeFile();
  /// What `writeFile` would write, without writing it; absent when there is no path or the settings cannot be written
  /// as a property list.
  std::optional<FileChange> change();

  /// `setTypesDictionaryFromStringsFile:`, `setDefaultsDictionaryFromFile:` Null empties the table; a file that cannot
  /// be read leaves it as it was.
  void setTypesDictionaryFromStringsFile(const PlistValue& path);
  void setDefaultsDictionaryFromFile(const PlistValue& path);

  /// `populateMissingParametersInDictionary:withDefaults:` Adds what the mutable dictionary `target` lacks, also in
  /// dictionaries within it and in keyed arrays, whose elements are matched by "_id_". What is there stays. Meant: true
  /// only when something was added to `target` itself or to a keyed array directly under it.
  static bool populateMissingParametersInDictionary(PlistValue target, const PlistValue& defaults);

  /// `objectForKey:withStringValue:` The value that the text of a setting stands for. Spaces and tabs around it and
  /// around each element of an array do not matter; numbers are those that the text begins with, 0 without; one that
  /// does not fit (64 bits, unsigned where it is positive) becomes the nearest that does. True is the setting's true
  /// word, or "yes", "true" or "1", in any (ASCII) letter case. Null without a text.
  PlistValue objectForKey(const PlistValue& name, const PlistValue& text) const;
  /// `objectForType:withStringValue:` The same by the types "Integer" and "Real"; with any other one the text.
  static PlistValue objectForType(const PlistValue& type, const PlistValue& text);
  /// `stringForKey:withValue:` The text for a value of a setting; a value that does not fit its type is returned as it
  /// is.
  PlistValue stringForKey(const PlistValue& name, const PlistValue& value) const;

  /// `addError:` Adds a text to the errors; null adds nothing.
  void addError(const PlistValue& text);
  /// `findAndLogErrorForFile:method:read:fileType:logType:` Finds out why the file could not be used, in the name of
  /// the operation `method`; logs it at `logType` (a level of syslog(3)), adds it to the errors, and returns its
  /// status. A `fileType` of "plist" makes an accessible file an invalid property list.
  std::int32_t findAndLogErrorForFile(const PlistValue& path, std::string_view method, bool read,
                                      const PlistValue& fileType, int logType);

 private:
  void reportMissingPath(std::string_view method);
  bool save();

  PlistValue fDictionary;
  PlistValue fFile;
  std::int32_t fReadStatus = kConfigStatusNotRead;
  std::int32_t fWriteStatus = kConfigStatusOK;
  PlistValue fTypesDictionary;
  PlistValue fDefaultsDictionary;
  PlistValue fGlobalError;
  PlistValue fErrors;
};

}  // namespace ostrel
