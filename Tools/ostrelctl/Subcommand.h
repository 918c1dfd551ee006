// One thing that the command-line client can do.
#pragma once

#include "ostrelctl/SharedOptions.h"

namespace ostrel {

/// Made for one command line: `declare`, then the command line is read, then `run`.
class Subcommand {
 public:
  virtual ~Subcommand() = default;
  /// Adds the words and options of its own; they are stored in members. The shared options are there already, and may
  /// stand before and behind the subcommand's name. `app.footer()` is for examples. Subcommands of its own
  /// (`app.add_subcommand`) take the shared options as well.
  virtual void declare(CLI::App& app) = 0;
  /// Does it and prints; the result is the program's exit status (see Exchange.h).
  virtual int run(const SharedOptions& shared) = 0;
};

}  // namespace ostrel
