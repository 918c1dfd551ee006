#include "ostreld/Daemon.h"
#include "ostreld/Options.h"

int main(int argc, char** argv) {
  int exitStatus = 0;
  const auto options = ostrel::readOptions(argc, argv, exitStatus);
  return options ? ostrel::runDaemon(*options) : exitStatus;
}
