// ostrelctl history MODULE: the samples that a module has taken, drawn or listed.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

/// Asks any module whose "getHistory" answers {"samples": [{"t", "v1", ...}], "values": [{"key", "name", "unit"}]} (see
/// docs/history.md). On a terminal each value is drawn; otherwise there is a table.
std::unique_ptr<Subcommand> makeHistoryCommand();

/// Seconds from "90", "90s", "1.5h", "30m", "2d", "1w". Absent for other text and for what is not above 0.
std::optional<double> periodFromText(std::string_view text);

}  // namespace ostrel
