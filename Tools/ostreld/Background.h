// Leaving the terminal, with the outcome of the start still told to whoever started the program.
#pragma once

#include <utility>

#include "Platform/FileDescriptor.h"

namespace ostrel {

/// Opens /dev/null in place of the standard streams that are closed: the next file or connection would take the number
/// of one of them, and get what is written to it. Call it before anything is opened.
void openMissingStandardStreams();

/// Moves the program into the background: a child in a session of its own goes on, the original process waits until
/// the child is ready or has ended, and exits with 0 or with the child's status. The child keeps standard error until
/// it is ready, so that a failed start can be read.
class Background {
 public:
  /// Returns in the child only. Call it before any thread is made. When it cannot be done, the program says why and
  /// exits with status 1.
  static Background enter();

  /// Lets the original process end with status 0 and gives the standard streams up.
  void ready();

 private:
  explicit Background(FileDescriptor starter) : starter_(std::move(starter)) {}
  FileDescriptor starter_;
};

}  // namespace ostrel
