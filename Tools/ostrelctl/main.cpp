// The command-line client of the daemon.
#include "ostrelctl/CommandLine.h"

int main(int argc, char** argv) {
  const auto line = ostrel::readCommandLine(argc, argv);
  return line->subcommand != nullptr ? line->subcommand->run(line->shared) : line->exitStatus;
}
