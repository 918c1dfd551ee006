// load_writer ROOT MODULE FIRST [LAST]: writes FIRST, FIRST + 1, ... into the module's context by the plain functions,
// as a tool beside the daemon does, and each number that is safely stored to the standard output. Made to be killed.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include "Load/WriterContext.h"
#include "Platform/HostRoot.h"
#include "PluginFramework/ContextStore.h"

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  ostrel::setHostRoot(argv[1]);
  const std::int64_t last = argc > 4 ? std::atoll(argv[4]) : std::numeric_limits<std::int64_t>::max();
  for (std::int64_t number = std::atoll(argv[3]); number <= last; ++number) {
    int descriptor = -1;
    const ostrel::PlistValue context = ostrel::get_and_lock_context(argv[2], &descriptor);
    if (descriptor == -1) return 1;  // nothing would be stored
    ostrel::load::write(context, number);
    ostrel::set_and_unlock_context(&descriptor, &context);
    const std::string line = std::to_string(number) + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return 1;
    // Another process sits behind the same lock: a break lets it in.
    usleep(500);
  }
  return 0;
}
