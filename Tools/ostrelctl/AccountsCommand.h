// ostrelctl users, ostrelctl groups: the accounts of a directory node, through the module ostrel_accounts.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeUsersCommand();
std::unique_ptr<Subcommand> makeGroupsCommand();

}  // namespace ostrel
