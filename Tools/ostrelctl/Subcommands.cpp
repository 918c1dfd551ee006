#include "ostrelctl/Subcommands.h"

#include "ostrelctl/AccountsCommand.h"
#include "ostrelctl/BatchCommand.h"
#include "ostrelctl/ConfigCommand.h"
#include "ostrelctl/DirectoryCommand.h"
#include "ostrelctl/HistoryCommand.h"
#include "ostrelctl/HostCommand.h"
#include "ostrelctl/LoginCommand.h"
#include "ostrelctl/ModulesCommand.h"
#include "ostrelctl/PortsCommand.h"
#include "ostrelctl/ServicesCommand.h"
#include "ostrelctl/StatusCommand.h"

namespace ostrel {
namespace {

constexpr SubcommandEntry table[] = {
    {"users", "List and change the users of a directory node", makeUsersCommand},
    {"groups", "List and change the groups of a directory node, and their members", makeGroupsCommand},
    {"login", "Sign in with a name and a password, for later commands", makeLoginCommand},
    {"logout", "End the session that login began", makeLogoutCommand},
    {"batch", "Run several commands side by side", makeBatchCommand},
    {"status", "Show how the daemon fares", makeStatusCommand},
    {"modules", "List the daemon's modules", makeModulesCommand},
    {"config", "Read and change configuration files of this machine, without the daemon", makeConfigCommand},
    {"ports", "List and change the port mappings of this machine's NAT gateway, without the daemon", makePortsCommand},
    {"services", "List, show and switch the services of this machine, without the daemon", makeServicesCommand},
    {"directory", "Make the first administrator and change passwords on this machine, without the daemon",
     makeDirectoryCommand},
    {"history", "Draw the samples that a module has taken", makeHistoryCommand},
    {"host", "Show this machine: interfaces, fail-over role, volumes", makeHostCommand},
};

}  // namespace

std::span<const SubcommandEntry> subcommandTable() { return table; }

}  // namespace ostrel
