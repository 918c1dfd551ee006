#include "PluginFramework/Internal/WrittenContexts.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Platform/Mutex.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t mostFiles = 16;
constexpr std::size_t largestFile = std::size_t{4} << 20;

struct Memory {
  Mutex mutex;
  std::vector<WrittenContext> files OSTREL_GUARDED_BY(mutex);  // the one written last is the last
};

Memory& memory() {
  static Memory& instance = *new Memory;  // never freed: threads may still write when the process ends
  return instance;
}

}  // namespace

void rememberWritten(WrittenContext written) {
  if (written.bytes.size() > largestFile) return;
  Memory& all = memory();
  WrittenContext forgotten;  // closes its journal without the mutex
  const MutexLock lock(all.mutex);
  if (all.files.size() == mostFiles) {
    forgotten = std::move(all.files.front());
    all.files.erase(all.files.begin());
  }
  all.files.push_back(std::move(written));
}

std::optional<WrittenContext> takeWritten(const FileStatus& file) {
  Memory& all = memory();
  std::optional<WrittenContext> taken;
  const MutexLock lock(all.mutex);
  const auto found =
      std::ranges::find_if(all.files, [&](const WrittenContext& each) { return each.file.isSameFile(file); });
  if (found == all.files.end()) return std::nullopt;
  taken = std::move(*found);
  all.files.erase(found);
  const bool untouched = taken->file.size == file.size && taken->file.modifiedNanoseconds == file.modifiedNanoseconds &&
                         taken->file.changedNanoseconds == file.changedNanoseconds;
  if (!untouched) return std::nullopt;
  return taken;
}

}  // namespace ostrel::detail
