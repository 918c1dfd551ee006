#include "PluginFramework/Internal/BatchResults.h"

#include "Platform/Clock.h"

namespace ostrel {

BatchResults::BatchResults(Shape shape)
    : shape_(shape), responses_(shape == Shape::array ? PlistValue::mutableArray() : PlistValue::mutableDictionary()) {}

void BatchResults::add(const PlistValue& response, const PlistValue& name, const PlistValue& command) {
  const MutexLock lock(mutex_);
  if (shape_ == Shape::array) {
    responses_.append(PlistValue::dictionaryOf({{"response", response}, {"name", name}, {"command", command}}));
  } else if (name.isString() && command.isString() && !response.isNull()) {
    PlistValue ofModule = responses_.get(name.stringValue());
    if (ofModule.isNull()) {
      ofModule = PlistValue::mutableDictionary();
      responses_.set(name.stringValue(), ofModule);
    }
    ofModule.set(command.stringValue(), response);
  }
  ++condition_;
  changed_.notifyAll();
}

bool BatchResults::waitFor(int count, std::chrono::nanoseconds limit) {
  Clock& clock = Clock::current();
  const auto deadline = clock.monotonic() + limit;
  const MutexLock lock(mutex_);
  while (condition_ != count) {
    const auto left = deadline - clock.monotonic();
    if (left <= std::chrono::nanoseconds::zero()) return false;
    clock.waitFor(changed_, mutex_, left);
  }
  return true;
}

PlistValue BatchResults::answer(bool isComplete) {
  const MutexLock lock(mutex_);
  condition_ = 0;
  const PlistValue container = isComplete ? responses_ : responses_.deepMutableStructureCopy();
  return shape_ == Shape::array ? PlistValue::dictionaryOf({{"responsesArray", container}}) : container;
}

}  // namespace ostrel
