// ostrelctl directory: the first administrator and passwords of this machine, without the daemon.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeDirectoryCommand();

}  // namespace ostrel
