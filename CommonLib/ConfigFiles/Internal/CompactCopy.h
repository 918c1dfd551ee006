// The copying that collapses blank lines.
#pragma once

#include <cstdint>
#include <cstdio>

namespace ostrel::detail {

/// Copies `from`, from its start on, to where `to` stands, and flushes `to`; with `collapse`, without each line of one
/// CR or LF alone that follows another such line. 0, kTextFileReadErr or kTextFileWriteErr.
std::int32_t copyLines(std::FILE* from, std::FILE* to, bool collapse) noexcept;

}  // namespace ostrel::detail
