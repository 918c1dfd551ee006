#include "Platform/RandomDevice.h"

#include <fcntl.h>

namespace ostrel {
namespace {

class HostRandomDevice final : public RandomDevice {
 public:
  FileDescriptor open() override { return openFile("/dev/random", O_RDONLY); }
};

}  // namespace

std::atomic<RandomDevice*>& RandomDevice::slot() {
  static HostRandomDevice host;
  static std::atomic<RandomDevice*> slot{&host};
  return slot;
}

}  // namespace ostrel
