// The daemon's life: start, serve, stop.
#pragma once

#include "ostreld/Options.h"

namespace ostrel {

/// Runs the daemon until it is told to stop; returns its exit status. Call it once, from main, before any thread is
/// made.
int runDaemon(const DaemonOptions& options);

}  // namespace ostrel
