#include "Directory/Internal/RecordWalk.h"

namespace ostrel::detail {
namespace {

constexpr std::uint32_t largestPiece = 0x40000000;

}  // namespace

DirectoryDataList* makeList(std::span<const std::string> names) {
  ReleasedList list(dsDataListAllocate());
  for (const std::string& name : names)
    if (!list || dsAppendStringToListAlloc(list.get(), name.c_str()) != directoryStatus::success) return nullptr;
  return list.take();
}

DirectoryStatus walkSearch(DirectoryHandle node, std::uint32_t asked, const SearchStep& step, const PieceReader& read) {
  ReleasedBuffer buffer(dsDataBufferAllocate(answerCapacity));
  ReleasedContinuation continuation(node);
  std::uint32_t remaining = asked;
  for (;;) {
    if (!buffer) return directoryStatus::outOfMemory;
    std::uint32_t count = remaining;
    DirectoryStatus status = step(buffer.get(), &count, continuation.place());
    if (status == directoryStatus::bufferTooSmall && buffer->capacity < largestPiece) {
      // Not even the next record fits.
      const std::uint32_t capacity = buffer->capacity * 2;
      *buffer.place() = dsDataBufferAllocate(capacity);
      continue;
    }
    if (status != directoryStatus::success) return status;
    bool more = true;
    status = read(*buffer, count, more);
    if (status != directoryStatus::success || !more || !continuation) return status;
    // 0 would ask for all.
    if (asked != 0) remaining = remaining > count ? remaining - count : 1;
  }
}

}  // namespace ostrel::detail
