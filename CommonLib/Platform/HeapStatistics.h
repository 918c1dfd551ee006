// What the allocator says of the heap.
#pragma once

#include <cstdint>

#include "Containers/Export.h"

namespace ostrel {

struct HeapStatistics {
  std::uint64_t bytesInUse = 0;  ///< allocated to the program, blocks with a mapping of their own included
  /// The blocks in use as far as the C library counts them: those with a mapping of their own (mallinfo2's hblks).
  /// It keeps no count of the others.
  std::uint64_t blocksInUse = 0;
  std::uint64_t largestSize = 0;  ///< the most that the heap has held so far, in bytes
};

/// The figures of this moment. Threads: may be called from any thread; takes the allocator's locks for a moment. All
/// are 0 under an allocator without statistics (the sanitizers').
OSTREL_EXPORT HeapStatistics heapStatistics();

}  // namespace ostrel
