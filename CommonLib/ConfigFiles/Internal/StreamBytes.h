// Bytes of a stream by their offsets.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>

namespace ostrel::detail {

/// Positions the stream. False for a null stream and a negative offset, too.
bool seekStream(std::FILE* stream, std::int64_t offset) noexcept;

/// The stream's size in `size`; it is positioned at its start. 0, kTextFileSeekErr or kTextFileTellErr.
std::int32_t streamSize(std::FILE* stream, std::int64_t& size) noexcept;

/// Appends the bytes [start, end) to `bytes`. 0, kTextFileSeekErr, kTextFileReadErr when there are fewer, or
/// kTextFileNoMemoryErr.
std::int32_t readStream(std::FILE* stream, std::int64_t start, std::int64_t end, std::string& bytes) noexcept;

/// Writes the pieces one after the other from `start` on, and flushes the stream. `size` is the stream's size now:
/// where the write goes beyond it, the disk space is reserved first, so that a full disk is told before any byte is
/// changed. 0, kTextFileSeekErr or kTextFileWriteErr.
std::int32_t writeStream(std::FILE* stream, std::int64_t start, std::initializer_list<std::string_view> pieces,
                         std::int64_t size) noexcept;

}  // namespace ostrel::detail
