#include "ConfigFiles/ConfigurationParser.h"

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

bool hasUtf16Mark(std::string_view bytes) { return bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF"); }

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
    const PlistValue copy = element.mutableCopy();
    if (!target.setObject(copy, id.stringValue())) continue;
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
    report(errorPriority, method, "File path not specified");
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
    report(errorPriority, method, "File path not specified");
    return false;
  }
  if (save()) return true;
  fWriteStatus = findAndLogErrorForFile(fFile, method, false, {}, errorPriority);
  return false;
}

std::optional<FileChange> ConfigurationParser::change() {
  auto xml = writeXmlPropertyList(dictionary());
  if (!fFile.isString() || !xml) return std::nullopt;
  return FileChange(pathOf(fFile), detail::readRegularFile(pathOf(fFile), maximumPlistSize), std::move(*xml));
}

bool ConfigurationParser::save() {
  const auto due = change();
  return due && due->save();
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
    report(warningPriority, method, format("File %@ is not a valid strings file", path));
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
  // Meant: what is added deeper does not count. A list, not recursion: nesting has no bound.
  while (!pending.empty()) {
    const Pending next = std::move(pending.back());
    pending.pop_back();
    addMissingMembers(next.target, next.defaults, pending);
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
  if (fGlobalError != PlistValue(multipleErrors)) {
    all.append(fGlobalError);
    fGlobalError = multipleErrors;
  }
  all.append(text);
}

std::int32_t ConfigurationParser::findAndLogErrorForFile(const PlistValue& path, std::string_view method, bool read,
                                                         const PlistValue& fileType, int logType) {
  const std::string file = pathOf(path);
  const auto fault = [&]() -> std::pair<std::int32_t, std::string> {
    if (!fileExists(file)) return {kConfigStatusFileNotFound, format("File %@ not found", path)};
    if (read && !mayRead(file)) return {kConfigStatusNoAccess, format("File %@ is not readable", path)};
    if (!read && !mayWrite(file)) return {kConfigStatusNoAccess, format("File %@ is not writeable", path)};
    if (fileType == PlistValue(plistType))
      return {kConfigStatusInvalidPlist, format("File %@ is not a valid plist", path)};
    // Meant: it says "read" for a failed write as well.
    return {kConfigStatusUnknownError, format("Couldn't read file %@ - unknown error", path)};
  }();
  report(logType, method, fault.second);
  return fault.first;
}

void ConfigurationParser::report(int priority, std::string_view method, std::string_view fault) {
  SystemLog::current().write(priority, format("%s: %s %s", processName(), method, fault));
  addError(format("%@: %@", method, fault));
}

}  // namespace ostrel
