// The system logger's configuration file.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ConfigFiles/SyslogUtilities.h"
#include "EditorInputs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace ostrel;
  fuzz::NoLog::install();
  static const fuzz::MemoryFile file;
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  file.hold(text);
  SyslogUtilities utilities{PlistValue(file.path())};
  utilities.description();
  for (std::int32_t facility = 0; facility <= 1016; facility += 8) {
    const std::int32_t level = utilities.levelForFacility(facility);
    fuzz::require(level == -1 || !SyslogUtilities::stringForSyslogLevel(level).isNull(), "levels have names");
    fuzz::require(level == -1 || !utilities.actionsForFacility(facility, level).isNull(), "a level has its action");
  }

  const bool hadMail = !utilities.actionsForFacility(16, 0).isNull();
  fuzz::require(utilities.setLevel(3, 16, "/var/log/own"), "a line of our own is new");
  fuzz::require(utilities.levelForFacility(16) == 3, "it decides");
  const auto change = utilities.change();
  const bool isAscii = std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  fuzz::require(change.has_value() == isAscii, "a text is written when it is ASCII");
  if (!change) return 0;
  const std::string_view kept = text.substr(0, text.find_last_not_of('\n') + 1);
  fuzz::require(
      change->newText() == std::string(kept) + (kept.empty() ? "" : "\n") + "mail.err\t\t\t\t\t\t/var/log/own\n",
      "nothing else changes");
  fuzz::require(utilities.removeActionsForFacility(16), "it can be removed");
  fuzz::require(utilities.change()->newText() == std::string(kept) + "\n", "and nothing of it is left");

  file.hold(change->newText());
  SyslogUtilities reader{PlistValue(file.path())};
  const PlistValue actions = reader.actionsForFacility(16, 3);
  fuzz::require(actions.at(actions.count() - 1) == PlistValue("/var/log/own"), "it reads back");
  fuzz::require(hadMail || actions.count() == 1, "alone");
  return 0;
}
