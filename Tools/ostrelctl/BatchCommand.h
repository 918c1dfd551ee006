// ostrelctl batch: several commands side by side, one reply.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeBatchCommand();

}  // namespace ostrel
