// ostrelctl services: the services of this machine, without the daemon.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeServicesCommand();

}  // namespace ostrel
