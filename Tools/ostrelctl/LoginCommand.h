// ostrelctl login, ostrelctl logout: a session for later commands.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeLoginCommand();
std::unique_ptr<Subcommand> makeLogoutCommand();

}  // namespace ostrel
