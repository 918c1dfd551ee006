#include "Platform/HeapStatistics.h"

#include <malloc.h>
#include <stdio.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace ostrel {
namespace {

// The last `<system type="max" size="N"/>` of malloc_info(3) is the sum over all arenas. 0 when there is none.
std::uint64_t largestArenaSize() {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  if (stream == nullptr) return 0;
  const bool told = malloc_info(0, stream) == 0;
  const bool closed = fclose(stream) == 0;
  const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
  if (!told || !closed || !owned) return 0;
  constexpr std::string_view label = "<system type=\"max\" size=\"";
  const std::size_t found = std::string_view(text, size).rfind(label);
  return found == std::string_view::npos ? 0 : std::strtoull(text + found + label.size(), nullptr, 10);
}

}  // namespace

HeapStatistics heapStatistics() {
  const struct mallinfo2 now = mallinfo2();
  HeapStatistics statistics;
  statistics.bytesInUse = now.uordblks + now.hblkhd;
  statistics.blocksInUse = now.hblks;
  statistics.largestSize = std::max<std::uint64_t>(largestArenaSize(), now.arena) + now.hblkhd;
  return statistics;
}

}  // namespace ostrel
