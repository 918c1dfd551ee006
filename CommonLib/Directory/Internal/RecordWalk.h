// Walking over what a search answers, in pieces.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "Directory/Internal/Released.h"

namespace ostrel::detail {

/// A new list of the names. Null when out of memory.
DirectoryDataList* makeList(std::span<const std::string> names);

/// One call of a search; arguments and result as `dsGetRecordList` has them.
using SearchStep =
    std::function<DirectoryStatus(DirectoryDataBuffer* buffer, std::uint32_t* count, DirectoryHandle* continuation)>;
/// Takes in the `count` records of a buffer. Clears `more` to end the walk.
using PieceReader = std::function<DirectoryStatus(const DirectoryDataBuffer& buffer, std::uint32_t count, bool& more)>;

/// Asks for `asked` records (0: all), piece by piece, and behind them for one more, so that `read` learns whether there
/// are more. The first failure ends it.
DirectoryStatus walkSearch(DirectoryHandle node, std::uint32_t asked, const SearchStep& step, const PieceReader& read);

}  // namespace ostrel::detail
