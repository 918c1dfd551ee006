#include "Platform/RandomDevice.h"

#include <fcntl.h>

namespace ostrel {
namespace {

class HostRandomDevice final : public RandomDevice {
 public:
  FileDescriptor open() override { return openFile("/dev/random", O_RDONLY); }
};

bool isLetterOrDigit(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
}

}  // namespace

std::atomic<RandomDevice*>& RandomDevice::slot() {
  static HostRandomDevice host;
  static std::atomic<RandomDevice*> slot{&host};
  return slot;
}

/// Bytes that are no letter or digit are dropped, not mapped.
std::optional<std::string> randomLettersAndDigits(std::size_t count) {
  const FileDescriptor device = RandomDevice::current().open();
  if (!device) return std::nullopt;
  std::string text;
  while (text.size() < count) {
    char byte = 0;
    if (readSome(device.get(), &byte, 1) != 1) return std::nullopt;
    if (isLetterOrDigit(byte)) text += byte;
  }
  return text;
}

}  // namespace ostrel
