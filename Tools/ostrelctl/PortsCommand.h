// ostrelctl ports: the port mappings of this machine's NAT gateway, without the daemon.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makePortsCommand();

}  // namespace ostrel
