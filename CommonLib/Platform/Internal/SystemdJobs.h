// What "systemctl show" prints of service units. Pure functions.
#pragma once

#include <string_view>

#include "Containers/Export.h"
#include "Platform/LaunchData.h"

namespace ostrel::detail {

/// The properties that `jobsFrom` reads, as systemctl's option takes them.
inline constexpr std::string_view jobProperties =
    "Id,LoadState,ActiveState,UnitFileState,MainPID,ExecMainCode,ExecMainStatus,Restart,ExecStart,User,"
    "WorkingDirectory";

/// A dictionary from label to job (ServiceManager.h) of every loaded unit in the output: "NAME=value" lines, an empty
/// line between two units. Lines and values that are not of the known form are passed over.
OSTREL_EXPORT LaunchData::Dictionary jobsFrom(std::string_view output);

}  // namespace ostrel::detail
