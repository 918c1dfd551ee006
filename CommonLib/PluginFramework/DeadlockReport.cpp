// What the host does when a module hangs: the report and the forced quit.
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>

#include "Containers/Format.h"
#include "Platform/HeapStatistics.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel {

PlistValue Redact(const PlistValue& markers) {
  PlistValue redacted = markers.mutableCopy();
  for (PlistValue marker : redacted.elements()) marker.remove("Request");
  return redacted;
}

void LogDeadlockToMessageTracer(const PlistValue& markers, std::string_view module) {
  const HeapStatistics heap = heapStatistics();
  const std::array<SystemLog::Field, 6> fields{{
      {"com.brantle.message.domain", "com.brantle.ostreld.deadlock"},
      {"com.brantle.message.result", "noop"},
      {"com.brantle.message.value", format("%llu", heap.bytesInUse)},
      {"com.brantle.message.value1", format("%llu", heap.blocksInUse)},
      {"com.brantle.message.value2", format("%llu", heap.largestSize)},
      {"com.brantle.message.signature", format("ostreld: %@ detected deadlock", module)},
  }};
  SystemLog::current().writeRecord(static_cast<int>(LogLevel::notice), fields,
                                   format("requests = %@", Redact(markers)));
}

__attribute__((no_sanitize("undefined", "address", "thread"))) void
BundleManager::forceQuitNow_PleaseLookAtHungThreadAndNotThisThread() {
  if (!crashOnHangTimeout) _exit(1);
  const volatile std::uintptr_t address = 0xDEADDEAD;
  *reinterpret_cast<volatile std::uint32_t*>(address) = 0xDEADDEAD;  // NOLINT: crashes on purpose
  std::abort();                                                      // should there be memory at that address
}

}  // namespace ostrel
