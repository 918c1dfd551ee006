#include "ConfigFiles/Internal/StreamBytes.h"

#include <stdio.h>
#include <sys/types.h>

#include <new>
#include <stdexcept>

#include "ConfigFiles/TextFileErrors.h"
#include "Platform/FileDescriptor.h"

namespace ostrel::detail {
namespace {

static_assert(sizeof(off_t) == sizeof(std::int64_t));

// A stream that leads to no file (memory) has nothing to reserve.
bool reserve(std::FILE* stream, std::int64_t start, std::int64_t end, std::int64_t size) noexcept {
  if (end <= size) return true;
  const int descriptor = fileno(stream);
  const std::int64_t from = start > size ? start : size;
  return descriptor < 0 ||
         reserveSpace(descriptor, static_cast<std::uint64_t>(from), static_cast<std::uint64_t>(end - from));
}

}  // namespace

bool seekStream(std::FILE* stream, std::int64_t offset) noexcept {
  return stream != nullptr && offset >= 0 && fseeko(stream, offset, SEEK_SET) == 0;
}

std::int32_t streamSize(std::FILE* stream, std::int64_t& size) noexcept {
  size = 0;
  if (stream == nullptr || fseeko(stream, 0, SEEK_END) != 0) return kTextFileSeekErr;
  const std::int64_t position = ftello(stream);
  if (position < 0) return kTextFileTellErr;
  if (!seekStream(stream, 0)) return kTextFileSeekErr;
  size = position;
  return 0;
}

std::int32_t readStream(std::FILE* stream, std::int64_t start, std::int64_t end, std::string& bytes) noexcept {
  if (start >= end) return 0;
  if (!seekStream(stream, start)) return kTextFileSeekErr;
  const std::size_t count = static_cast<std::size_t>(end - start);
  const std::size_t before = bytes.size();
  try {
    bytes.resize(before + count);
  } catch (const std::bad_alloc&) {
    return kTextFileNoMemoryErr;
  } catch (const std::length_error&) {
    return kTextFileNoMemoryErr;
  }
  return std::fread(bytes.data() + before, 1, count, stream) == count ? 0 : kTextFileReadErr;
}

std::int32_t writeStream(std::FILE* stream, std::int64_t start, std::initializer_list<std::string_view> pieces,
                         std::int64_t size) noexcept {
  std::int64_t end = start;
  for (const std::string_view piece : pieces) end += static_cast<std::int64_t>(piece.size());
  if (!seekStream(stream, start)) return kTextFileSeekErr;
  bool isWritten = reserve(stream, start, end, size);
  for (const std::string_view piece : pieces)
    isWritten = isWritten && std::fwrite(piece.data(), 1, piece.size(), stream) == piece.size();
  const bool isFlushed = std::fflush(stream) == 0;
  return isWritten && isFlushed ? 0 : kTextFileWriteErr;
}

}  // namespace ostrel::detail
