// The host's start-up settings: a line for the key, one for the value, then the file.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ConfigFiles/Internal/HostConfigText.h"
#include "EditorInputs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace ostrel;
  std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::string_view key = fuzz::takeLine(text);
  const std::string_view value = fuzz::takeLine(text);
  if (key.empty() || key.starts_with(' ') || key.starts_with('\t')) return 0;
  const std::string once = detail::hostConfigWithEntry(text, key, value);
  fuzz::require(detail::hostConfigWithEntry(once, key, value) == once, "the same setting again changes nothing");

  // Every other line is as it was, but for the blanks around it.
  const std::string entry = std::string(key) + "=" + std::string(value);
  std::string_view before = text;
  std::string_view after = once;
  bool isThere = false;
  while (!after.empty()) {
    const std::string_view made = fuzz::takeLine(after);
    // A last line of blanks without an end is no line.
    const bool isAdded = before.find_first_not_of(" \t") == std::string_view::npos && after.empty();
    std::string_view kept = fuzz::takeLine(before);
    kept.remove_prefix(std::min(kept.find_first_not_of(" \t"), kept.size()));
    kept = kept.substr(0, kept.find_last_not_of(" \t") + 1);
    isThere = isThere || made == entry;
    if (!isAdded && !kept.starts_with(key)) fuzz::require(made == kept, "other lines stay");
    if (!isAdded && kept.starts_with(key)) fuzz::require(made == entry, "every line of the key is replaced");
  }
  fuzz::require(isThere, "the setting is there");
  return 0;
}
