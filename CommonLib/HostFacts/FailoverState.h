// Whether this machine is the active or the standby member of an IP fail-over pair.
#pragma once

#include <cstdint>

#include "Containers/Export.h"

namespace ostrel {

// What `NIGetFailoverState` answers.
inline constexpr std::int32_t failoverNone = 0;  ///< no fail-over is set up, or it is not known
inline constexpr std::int32_t failoverMaster = 1;
inline constexpr std::int32_t failoverBackup = 2;

/// Reads the role from the fail-over daemon's preferences, the property list (XML or binary)
/// "/Library/Preferences/com.brantle.tavrond.plist" below the host root: 1 when "FailoverRole" is "MASTER", 2 when it
/// is "BACKUP", to the letter. 0 for any other role, and whatever the role when "PublicNodes" is no array or an empty
/// one, or when there is no such file. Nothing is kept between calls.
///
/// Threads: may be called from any thread. Reads one file; nothing is thrown except std::bad_alloc.
OSTREL_EXPORT std::int32_t NIGetFailoverState();

}  // namespace ostrel
