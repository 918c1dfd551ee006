// The commands that the daemon itself answers, under a module name that no bundle can take.
#pragma once

#include "Containers/PlistValue.h"

namespace ostrel::daemonModule {

inline constexpr const char* name = "ostreld";

inline constexpr const char* getStatus = "getStatus";

inline PlistValue request(const char* command) { return PlistValue::dictionaryOf({{"command", command}}); }

}  // namespace ostrel::daemonModule
