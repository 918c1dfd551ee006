// ostrelctl host: the machine's network interfaces, fail-over role and volumes.
#pragma once

#include <memory>

#include "Containers/PlistValue.h"
#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeHostCommand();

/// The reply to "getHost" of a module (docs/host-facts.md) as the page that a person reads, in the form of
/// `readableText`'s argument. What the module left out is left out.
PlistValue hostPage(const PlistValue& host);

}  // namespace ostrel
