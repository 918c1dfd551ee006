// The texts of /proc. The kernel writes them, but any process chooses the command name in the middle.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Platform/Internal/ProcessText.h"

namespace {

/// Whatever a process calls itself, the fields around its name stay what the kernel wrote.
void checkCommandName(std::string_view name) {
  const std::string text = "71 (" + std::string(name) + ") Z 17 1 1 0 -1 4 1 0 0 0 5 6 0 0 20 0 1 0 4711 3133440";
  const auto entry = ostrel::detail::parseProcessStat(text);
  if (!entry || entry->pid != 71 || entry->parent != 17 || entry->started != 4711 || entry->isRunning()) std::abort();
  if (!name.starts_with(entry->name())) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  checkCommandName(text);
  const auto entry = ostrel::detail::parseProcessStat(text);
  if (entry && (entry->pid < 1 || text.find(entry->name()) == std::string_view::npos)) std::abort();
  ostrel::detail::parseThreadGroup(text);
  constexpr std::string_view shortestLine = "cpu0 0 0 0 0";
  if (ostrel::detail::parseProcessorTicks(text).size() * shortestLine.size() > size) std::abort();
  if (ostrel::detail::programName(text).find('/') != std::string_view::npos) std::abort();
  return 0;
}
