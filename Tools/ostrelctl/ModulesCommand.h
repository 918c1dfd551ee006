// ostrelctl modules: the modules that the daemon has loaded.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeModulesCommand();

}  // namespace ostrel
