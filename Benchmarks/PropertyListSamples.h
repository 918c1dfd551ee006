// The documents that the property-list benchmark reads and writes.
#pragma once

#include <cstddef>
#include <string>

#include "Containers/PlistValue.h"

namespace ostrel::benchmarks {

/// A listing as a directory module answers it: `users` records of about 600 bytes of XML.
PlistValue userListing(std::size_t users);

/// A command with its arguments, about 1 KB of XML.
PlistValue request();

/// Settings with certificates and icons: every kind of value, two thirds of the bytes base64.
PlistValue mixedDocument();

}  // namespace ostrel::benchmarks
