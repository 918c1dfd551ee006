// A module for tests of the daemon: slow, large and failing answers.
#include <chrono>
#include <stdexcept>
#include <string>

#include "Network/NetworkChangeContext.h"
#include "Platform/Clock.h"
#include "Platform/Mutex.h"
#include "PluginFramework/PluginRequestHandler.h"

namespace ostrel {

class TestModule : public PluginRequestHandler {
 public:
  TestModule() : PluginRequestHandler(operations()) {}

  /// Sleeps "seconds", then counts in the context.
  PlistValue sleepWithRequest(const PlistValue& request) {
    PlistValue kept = context();
    const std::int64_t count = kept.get("count").int64Value() + 1;
    Clock::current().sleepFor(
        std::chrono::nanoseconds(static_cast<std::int64_t>(request.get("seconds").doubleValue() * 1e9)));
    kept.set("count", count);
    kept.set("contextDirty", true);
    return PlistValue::dictionaryOf({{"count", count}});
  }
  PlistValue countWithRequest(const PlistValue&) {
    return PlistValue::dictionaryOf({{"count", context().get("count").int64Value()}});
  }
  PlistValue fillWithRequest(const PlistValue& request) {
    return PlistValue::dictionaryOf({{"text", std::string(request.get("size").uint64Value(), 'x')}});
  }
  PlistValue throwWithRequest(const PlistValue&) { throw std::runtime_error("out of paper"); }
  PlistValue unprintableWithRequest(const PlistValue&) {
    return PlistValue::dictionaryOf({{"\x01", "a key that XML cannot carry"}});
  }
  PlistValue controlWithRequest(const PlistValue&) { return PlistValue::dictionaryOf({{"text", "\x1B[1m"}}); }

  /// Keeps what it hears of the network, and throws at the address 203.0.113.66.
  void didReceiveNetworkChangedNotification(NetworkChangeContext& change) {
    PlistValue heard = PlistValue::mutableDictionaryOf({{"info", change.changeInfo()},
                                                        {"addressChanged", change.hasAddrChanged()},
                                                        {"usable", change.hasValidNetworkConfiguration()}});
    heard.set("newAddress", change.newAddr());
    const MutexLock lock(mutex_);
    changes_.append(heard);
    if (change.newAddr() == PlistValue("203.0.113.66")) throw std::runtime_error("a number too many");
  }
  PlistValue heardWithRequest(const PlistValue&) {
    const MutexLock lock(mutex_);
    return PlistValue::dictionaryOf({{"changes", changes_.deepMutableCopy()}});
  }

 private:
  static const OperationTable& operations() {
    static const OperationTable table{
        {"sleepWithRequest:", &TestModule::sleepWithRequest},
        {"countWithRequest:", &TestModule::countWithRequest},
        {"fillWithRequest:", &TestModule::fillWithRequest},
        {"throwWithRequest:", &TestModule::throwWithRequest},
        {"unprintableWithRequest:", &TestModule::unprintableWithRequest},
        {"controlWithRequest:", &TestModule::controlWithRequest},
        {"heardWithRequest:", &TestModule::heardWithRequest},
        {"didReceiveNetworkChangedNotification:", &TestModule::didReceiveNetworkChangedNotification}};
    return table;
  }

  Mutex mutex_;
  PlistValue changes_ OSTREL_GUARDED_BY(mutex_) = PlistValue::mutableArray();
};

}  // namespace ostrel

OSTREL_MODULE(ostrel::TestModule)
