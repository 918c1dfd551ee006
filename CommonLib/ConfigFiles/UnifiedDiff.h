// The difference of two texts in the unified form that diff -u prints and patch(1) takes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

struct UnifiedDiffNames {
  std::string oldName = "old";  ///< behind "--- "; "/dev/null" for a file that is to be made
  std::string newName = "new";  ///< behind "+++ "
};

/// What turns `oldText` into `newText`, with `context` unchanged lines around each change; "" when they are equal.
/// Lines end at LF; the marker "\ No newline at end of file" stands where the last one has none. A name that holds
/// control characters, quotes or backslashes is written in double quotes with escapes, so that it cannot forge lines.
///
/// The fewest changed lines for texts that are much alike (Myers 1986, in linear space). Texts that differ in more than
/// some hundred places are still told apart rightly, though perhaps with more lines than needed: the time stays near
/// linear. Threads: may be called from any thread.
OSTREL_EXPORT std::string unifiedDiff(std::string_view oldText, std::string_view newText,
                                      const UnifiedDiffNames& names = {}, std::size_t context = 3);

}  // namespace ostrel
