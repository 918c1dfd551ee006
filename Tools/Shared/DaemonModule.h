// The commands that the daemon itself answers, under a module name of its own (docs/wire-protocol.md).
#pragma once

#include "Containers/PlistValue.h"

namespace ostrel::daemonModule {

inline constexpr const char* name = "ostreld";

inline constexpr const char* getStatus = "getStatus";
inline constexpr const char* batch = "batch";
inline constexpr const char* logout = "logout";

inline PlistValue request(const char* command) { return PlistValue::dictionaryOf({{"command", command}}); }

}  // namespace ostrel::daemonModule
