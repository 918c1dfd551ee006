// ostrelctl config: configuration files of other programs, read and changed on this machine without the daemon.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeConfigCommand();

}  // namespace ostrel
