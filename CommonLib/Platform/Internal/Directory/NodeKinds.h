// The kinds of nodes that a configuration may name.
#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/DirectoryNode.h"

namespace ostrel::detail {

/// The factory of a kind, or null.
DirectoryNodeFactory nodeFactory(std::string_view kind);
/// Grows with every registration.
std::uint64_t nodeKindGeneration();

}  // namespace ostrel::detail
