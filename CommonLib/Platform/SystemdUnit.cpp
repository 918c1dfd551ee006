#include "Platform/Internal/SystemdUnit.h"

#include <algorithm>

#include "Containers/Utf8.h"

namespace ostrel::detail {
namespace {

constexpr std::string_view unitSuffix = ".service";
constexpr std::size_t longestUnitName = 255;
constexpr std::size_t longestUnit = 512 << 10;  // systemd gives a file with a longer line than 1 MiB up

bool isAlphanumeric(char character) {
  return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
         (character >= 'a' && character <= 'z');
}

bool isUnitCharacter(char character) {
  return isAlphanumeric(character) || std::string_view(":-_.\\@").find(character) != std::string_view::npos;
}

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

void removeSuffix(std::string_view& text, std::string_view suffix) {
  if (text.ends_with(suffix)) text.remove_suffix(suffix.size());
}

/// Specifiers ("%n") are expanded after the escapes are taken out, so only doubling keeps them out.
std::string withoutSpecifiers(std::string_view text) {
  std::string doubled;
  for (const char character : text) doubled.append(character == '%' ? 2 : 1, character);
  return doubled;
}

bool isText(const PlistValue& value) {
  return value.isString() && value.stringValue().find('\0') == std::string_view::npos;
}

/// A path that stands on a line as it is: these lines know no quotes, and white space at the end is cut.
bool isPlainPath(const PlistValue& value) {
  if (!isText(value) || !isValidUtf8(value.stringValue())) return false;
  const std::string_view path = value.stringValue();
  return path.starts_with('/') && path.size() < 4096 && std::ranges::none_of(path, isControl) && path.back() != ' ' &&
         path.back() != '\\';
}

bool isAccountName(const PlistValue& value) {
  const std::string_view name = value.stringValue();
  const auto fits = [](char c) { return isAlphanumeric(c) || c == '_' || c == '-' || c == '.'; };
  return !name.empty() && name.size() < 256 && name.front() != '-' && name.front() != '.' &&
         std::ranges::all_of(name, fits);
}

bool isVariableName(std::string_view name) {
  return !name.empty() && !(name.front() >= '0' && name.front() <= '9') &&
         std::ranges::all_of(name, [](char c) { return isAlphanumeric(c) || c == '_'; });
}

/// Writes the lines of a unit; one that cannot be written spoils the whole.
class UnitWriter {
 public:
  explicit UnitWriter(const PlistValue& description) : description_(description) {}

  void line(std::string_view text) { text_.append(text) += '\n'; }
  void refuseUnless(bool good) { isGood_ = isGood_ && good; }

  void path(std::string_view key, std::string_view directive, std::string_view before = "") {
    setting(key, directive, before, isPlainPath);
  }
  void account(std::string_view key, std::string_view directive) { setting(key, directive, "", isAccountName); }

  void command() {
    const PlistValue program = description_.get("Program");
    const PlistValue arguments = description_.get("ProgramArguments");
    const PlistValue& file = program.isNull() ? arguments.at(0) : program;
    refuseUnless(arguments.count() != 0 || (arguments.isNull() && !program.isNull()));
    // Before the path: no variables ("$NAME") are put in, and the next word is the name that the program gets.
    refuseUnless(isPlainPath(file) && file.stringValue().find_first_of("\"'\\") == std::string_view::npos);
    text_ += "ExecStart=" + quotedWord(":@" + withoutSpecifiers(file.stringValue()));
    if (arguments.isNull()) word(file);
    for (const PlistValue& argument : arguments.elements()) word(argument);
    text_ += '\n';
  }

  void environment() {
    const PlistValue variables = description_.get("EnvironmentVariables");
    refuseUnless(variables.isNull() || variables.isDictionary());
    for (const PlistEntry& variable : variables.entries()) {
      refuseUnless(isVariableName(variable.keyText()) && isText(variable.value) &&
                   isValidUtf8(variable.value.stringValue()));
      std::string assignment(variable.keyText());
      (assignment += '=') += variable.value.stringValue();
      if (isGood_) line("Environment=" + quotedWord(withoutSpecifiers(assignment)));
    }
  }

  void restart() {
    const PlistValue keepAlive = description_.get("KeepAlive");
    if (keepAlive.isDictionary()) {
      // Any other condition would have to be watched for.
      const PlistValue onSuccess = keepAlive.get("SuccessfulExit");
      refuseUnless(keepAlive.count() == 1 && onSuccess.isBoolean());
      line(onSuccess.boolValue() ? "Restart=on-success" : "Restart=on-failure");
    } else if (!keepAlive.isNull()) {
      refuseUnless(keepAlive.isNumber());
      if (keepAlive.boolValue()) line("Restart=always");
    }
  }

  std::optional<std::string> text() && {
    if (!isGood_ || text_.size() > longestUnit) return std::nullopt;
    return std::move(text_);
  }

 private:
  void word(const PlistValue& argument) {
    refuseUnless(isText(argument));
    if (isGood_) (text_ += ' ') += quotedWord(withoutSpecifiers(argument.stringValue()));
  }
  void setting(std::string_view key, std::string_view directive, std::string_view before,
               bool (*isValid)(const PlistValue&)) {
    const PlistValue value = description_.get(key);
    if (value.isNull()) return;
    refuseUnless(isValid(value));
    if (isGood_) line(std::string(directive) + "=" + std::string(before) + withoutSpecifiers(value.stringValue()));
  }

  const PlistValue& description_;
  std::string text_;
  bool isGood_ = true;
};

/// What starts a job other than being switched on: a service made of such a job would run at the wrong time.
bool hasTrigger(const PlistValue& description) {
  constexpr std::string_view triggers[] = {
      "Sockets",      "inetdCompatibility", "StartInterval",   "StartCalendarInterval",
      "StartOnMount", "WatchPaths",         "QueueDirectories"};
  return std::ranges::any_of(triggers, [&](std::string_view key) { return description.contains(key); });
}

}  // namespace

std::optional<std::string> unitOfLabel(std::string_view label) {
  removeSuffix(label, unitSuffix);
  if (label.empty() || label.size() + unitSuffix.size() > longestUnitName) return std::nullopt;
  if (label.front() == '-' || label.front() == '.' || label.front() == '@') return std::nullopt;
  if (!std::ranges::all_of(label, isUnitCharacter)) return std::nullopt;
  return std::string(label) + std::string(unitSuffix);
}

std::optional<std::string> unitOfPath(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);
  removeSuffix(path, ".plist");
  removeSuffix(path, ".xml");
  return unitOfLabel(path);
}

std::string_view labelOfUnit(std::string_view unit) {
  removeSuffix(unit, unitSuffix);
  return unit;
}

std::string quotedWord(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string word = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '"' || character == '\\') {
      (word += '\\') += character;
    } else if (byte >= 0x20 && byte < 0x7F) {
      word += character;
    } else {
      ((word += "\\x") += digits[byte >> 4U]) += digits[byte & 15U];
    }
  }
  return word + '"';
}

std::optional<std::string> unitText(const PlistValue& description, std::string_view heading) {
  const PlistValue label = description.get("Label");
  const auto unit = unitOfLabel(label.stringValue());
  if (!unit || unit->ends_with("@.service") || hasTrigger(description)) return std::nullopt;  // a template runs nothing
  UnitWriter writer(description);
  writer.line(heading);
  writer.line("[Unit]");
  writer.line("Description=" + *unit);  // never ends in a backslash, which would join the next line to it
  writer.line("\n[Service]");
  writer.line("Type=exec");  // so that a program that cannot be run is told when it is switched on
  writer.command();
  writer.environment();
  writer.path("WorkingDirectory", "WorkingDirectory");
  writer.path("RootDirectory", "RootDirectory");
  writer.account("UserName", "User");
  writer.account("GroupName", "Group");
  writer.path("StandardOutPath", "StandardOutput", "append:");
  writer.path("StandardErrorPath", "StandardError", "append:");
  writer.restart();
  writer.line("\n[Install]");
  writer.line("WantedBy=multi-user.target");
  return std::move(writer).text();
}

}  // namespace ostrel::detail
