#include "ConfigFiles/ConfigurationParser.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "ConfigFiles/Internal/TextLines.h"
#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/Files.h"

namespace ostrel {
namespace {

constexpr int errorPriority = static_cast<int>(LogLevel::error);
constexpr int warningPriority = static_cast<int>(LogLevel::warning);
constexpr std::size_t maximumPlistSize = std::size_t{64} << 20U;
constexpr const char* plistType = "plist";
constexpr const char* multipleErrors = "multiple_errors";
constexpr const char* idKey = "_id_";

std::string pathOf(const PlistValue& path) { return path.isString() ? std::string(path.stringValue()) : ""; }

// The dictionary in a property-list file; null when there is none.
PlistValue dictionaryInFile(const PlistValue& path, PlistForm form) {
  const auto bytes = detail::readRegularFile(pathOf(path), maximumPlistSize);
  if (!bytes) return {};
  PlistValue value = readPropertyList(*bytes, form);
  return value.isDictionary() ? value : PlistValue();
}

// Settings as they are to be written. Nothing when they would not be read again: the next populating would take them
// for missing and replace them by the defaults.
std::optional<std::string> readableXml(const PlistValue& settings) {
  auto xml = writeXmlPropertyList(settings);
  if (xml && xml->size() > maximumPlistSize) xml.reset();
  return xml;
}

bool hasUtf16Mark(std::string_view bytes) { return bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF"); }

using Words = std::string_view;

// What can be wrong with a file: its status, the log line (program, operation, path) and the error (operation, path).
struct Fault {
  std::int32_t status;
  FormatString<Words, Words, Words> line;
  FormatString<Words, Words> error;
};
constexpr Fault notFound{kConfigStatusFileNotFound, "%s: %s File %s not found", "%@: File %@ not found"};
constexpr Fault notReadable{kConfigStatusNoAccess, "%s: %s File %s is not readable", "%@: File %@ is not readable"};
constexpr Fault notWriteable{kConfigStatusNoAccess, "%s: %s File %s is not writeable", "%@: File %@ is not writeable"};
constexpr Fault invalidPlist{kConfigStatusInvalidPlist, "%s: %s File %s is not a valid plist",
                             "%@: File %@ is not a valid plist"};
// Meant: it says "read" for a failed write as well.
constexpr Fault unknownError{kConfigStatusUnknownError, "%s: %s Couldn't read file %s - unknown error",
                             "%@: Couldn't read file %@ - unknown error"};
constexpr Fault invalidStrings{kConfigStatusUnknownError, "%s: %s File %s is not a valid strings file",
                               "%@: File %@ is not a valid strings file"};

const Fault& faultOf(const std::string& file, bool read, bool isPlist) {
  if (!fileExists(file)) return notFound;
  if (read && !mayRead(file)) return notReadable;
  if (!read && !mayWrite(file)) return notWriteable;
  return isPlist ? invalidPlist : unknownError;
}

// Logs a fault, and gives the text for the errors.
std::string tell(const Fault& fault, int priority, Words method, const PlistValue& path) {
  const std::string file = path.description();
  SystemLog::current().write(priority, format<Words, Words, Words>(fault.line, processName(), method, file));
  return format<Words, Words>(fault.error, method, file);
}

// A target that is to be completed, and its defaults.
struct Pending {
  PlistValue target;
  PlistValue defaults;
};

// Adds the elements that a keyed array lacks; those that it has are pending. Whether any was added.
bool addMissingElements(PlistValue target, const PlistValue& defaults, std::vector<Pending>& pending) {
  PlistValue present = target.dictionaryRepresentation().mutableCopy();
  bool added = false;
  for (const PlistValue& element : defaults.elements()) {
    const PlistValue id = element.get(idKey);
    const PlistValue found = present.get(id.stringValue());
    if (!found.isNull()) {
      pending.push_back({found, element});
      continue;
    }
    // Known to be new: put at the end without another search.
    const PlistValue copy = element.mutableCopy();
    target.append(copy);
    present.set(id.stringValue(), copy);
    added = true;
  }
  return added;
}

// One level; what lies deeper is pending. Whether anything was added here or in a keyed array directly below.
bool addMissingMembers(PlistValue target, const PlistValue& defaults, std::vector<Pending>& pending) {
  bool added = false;
  for (const PlistEntry& entry : defaults.entries()) {
    const PlistValue present = target.get(entry.keyText());
    if (present.isNull()) {
      if (target.set(entry.keyText(), entry.value.mutableCopy())) added = true;
    } else if (present.isDictionary() && present.isMutable() && entry.value.isDictionary()) {
      pending.push_back({present, entry.value});
    } else if (present.isMutable() && present.isArrayOfDictionaries() && entry.value.isArrayOfDictionaries()) {
      if (addMissingElements(present, entry.value, pending)) added = true;
    }
  }
  return added;
}

}  // namespace

ConfigurationParser::ConfigurationParser(const PlistValue& file, const PlistValue& typesFile,
                                         const PlistValue& defaultsFile, bool populateDefaults)
    : fFile(file) {
  setTypesDictionaryFromStringsFile(typesFile);
  setDefaultsDictionaryFromFile(defaultsFile);
  readFile();
  if (populateDefaults && populateMissingParametersInDictionary(dictionary(), fDefaultsDictionary) && !save())
    findAndLogErrorForFile(fFile, "initWithFile", false, {}, warningPriority);
}

std::shared_ptr<ConfigurationParser> ConfigurationParser::configurationParserWithFile(const PlistValue& file,
                                                                                      const PlistValue& typesFile,
                                                                                      const PlistValue& defaultsFile,
                                                                                      bool populateDefaults) {
  return std::make_shared<ConfigurationParser>(file, typesFile, defaultsFile, populateDefaults);
}

const PlistValue& ConfigurationParser::dictionary() {
  if (fDictionary.isNull()) fDictionary = PlistValue::mutableDictionary();
  return fDictionary;
}

const PlistValue& ConfigurationParser::globalError() {
  if (fGlobalError.isNull()) fGlobalError = "";
  return fGlobalError;
}

const PlistValue& ConfigurationParser::errors() {
  if (fErrors.isNull()) fErrors = PlistValue::mutableArray();
  return fErrors;
}

bool ConfigurationParser::readFile() {
  constexpr const char* method = "readFile";
  if (!fFile.isString()) {
    fReadStatus = kConfigStatusNoPath;
    reportMissingPath(method);
    return false;
  }
  PlistValue read = dictionaryInFile(fFile, PlistForm::mutableContainers);
  if (read.isNull()) {
    fReadStatus = findAndLogErrorForFile(fFile, method, true, plistType, errorPriority);
    return false;
  }
  fReadStatus = kConfigStatusOK;
  fDictionary.swap(read);
  return true;
}

bool ConfigurationParser::writeFile() {
  constexpr const char* method = "writeFile";
  if (!fFile.isString()) {
    fWriteStatus = kConfigStatusNoPath;
    reportMissingPath(method);
    return false;
  }
  if (save()) return true;
  fWriteStatus = findAndLogErrorForFile(fFile, method, false, {}, errorPriority);
  return false;
}

std::optional<FileChange> ConfigurationParser::change() {
  auto xml = readableXml(dictionary());
  if (!fFile.isString() || !xml) return std::nullopt;
  return FileChange(pathOf(fFile), detail::readRegularFile(pathOf(fFile), maximumPlistSize), std::move(*xml));
}

bool ConfigurationParser::save() {
  const auto xml = readableXml(dictionary());
  return fFile.isString() && xml && writeFileAtomically(pathOf(fFile), *xml);
}

void ConfigurationParser::setTypesDictionaryFromStringsFile(const PlistValue& path) {
  constexpr const char* method = "setTypesDictionaryFromStringsFile";
  if (!path.isString()) {
    fTypesDictionary = PlistValue();
    return;
  }
  const auto bytes = detail::readRegularFile(pathOf(path));
  const bool isHalfACharacter = bytes && hasUtf16Mark(*bytes) && bytes->size() % 2 != 0;
  if (!bytes || isHalfACharacter) {
    findAndLogErrorForFile(path, method, true, {}, warningPriority);
    return;
  }
  PlistValue types = hasUtf16Mark(*bytes) ? readStringsFile(*bytes) : PlistValue();
  if (types.count() == 0)
    addError(tell(invalidStrings, warningPriority, method, path));
  else
    fTypesDictionary.swap(types);
}

void ConfigurationParser::setDefaultsDictionaryFromFile(const PlistValue& path) {
  PlistValue defaults;
  if (path.isString()) {
    defaults = dictionaryInFile(path, PlistForm::immutableContainers);
    if (defaults.isNull()) {
      findAndLogErrorForFile(path, "setDefaultsDictionaryFromFile", true, plistType, warningPriority);
      return;
    }
  }
  fDefaultsDictionary.swap(defaults);
}

bool ConfigurationParser::populateMissingParametersInDictionary(PlistValue target, const PlistValue& defaults) {
  std::vector<Pending> pending;
  const bool changed = addMissingMembers(std::move(target), defaults, pending);
  std::ranges::reverse(pending);
  // Meant: what is added deeper does not count. A stack, not recursion: nesting has no bound. Its top is the first in
  // order, because of two defaults for one element the first one counts.
  while (!pending.empty()) {
    const Pending next = std::move(pending.back());
    pending.pop_back();
    const auto known = static_cast<std::ptrdiff_t>(pending.size());
    addMissingMembers(next.target, next.defaults, pending);
    std::reverse(pending.begin() + known, pending.end());
  }
  return changed;
}

void ConfigurationParser::addError(const PlistValue& text) {
  if (text.isNull()) return;
  if (globalError() == PlistValue("")) {
    fGlobalError = text;
    return;
  }
  PlistValue all = errors();
  if (!all.isMutable()) fErrors = all = all.mutableCopy();
  if (fGlobalError != PlistValue(multipleErrors)) {
    all.append(fGlobalError);
    fGlobalError = multipleErrors;
  }
  all.append(text);
}

std::int32_t ConfigurationParser::findAndLogErrorForFile(const PlistValue& path, std::string_view method, bool read,
                                                         const PlistValue& fileType, int logType) {
  const Fault& fault = faultOf(pathOf(path), read, fileType == PlistValue(plistType));
  addError(tell(fault, logType, method, path));
  return fault.status;
}

void ConfigurationParser::reportMissingPath(std::string_view method) {
  logAt(LogLevel::error, "%s: %s File path not specified", processName(), method);
  addError(format("%@: File path not specified", method));
}

}  // namespace ostrel
