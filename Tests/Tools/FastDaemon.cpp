// The daemon with a clock that runs 600 times as fast: the two minutes of a hung module pass in 0.2 seconds. It ends
// with whoever started it.
#include <signal.h>
#include <sys/prctl.h>

#include "Support/Fakes.h"
#include "ostreld/Daemon.h"
#include "ostreld/Options.h"

int main(int argc, char** argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int exitStatus = 0;
  const auto options = ostrel::readOptions(argc, argv, exitStatus);
  if (!options) return exitStatus;
  ostrel::testing::FastClock clock(600);
  const ostrel::ScopedOverride<ostrel::Clock> override(clock);
  return ostrel::runDaemon(*options);
}
