// ostrelctl status: how the daemon fares.
#pragma once

#include <memory>

#include "Containers/PlistValue.h"
#include "ostrelctl/Subcommand.h"

namespace ostrel {

std::unique_ptr<Subcommand> makeStatusCommand();

/// The reply to "getStatus" (docs/wire-protocol.md) as the page that a person reads, in the form of `readableText`'s
/// argument. What the daemon left out is left out.
PlistValue statusPage(const PlistValue& status);

}  // namespace ostrel
