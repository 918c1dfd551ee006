// A module that does what it is asked to, also to fail.
#include <exception>
#include <stdexcept>
#include <string>

#include "Network/NetworkChangeContext.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Mutex.h"
#include "PluginFramework/PluginRequestHandler.h"

namespace {

using ostrel::PlistValue;

class Silent : public std::exception {
 public:
  const char* what() const noexcept override { return nullptr; }
};

class GoodHandler : public ostrel::PluginRequestHandler {
 public:
  GoodHandler() : PluginRequestHandler(operations()) {}

  PlistValue getStateWithRequest(const PlistValue&) {
    return PlistValue::dictionaryOf(
        {{"state", context().contains("state") ? context().get("state") : PlistValue("STOPPED")},
         {"user", currentUserName().isNull() ? PlistValue("nobody") : currentUserName()}});
  }
  PlistValue startServiceWithVariant(const PlistValue&) override {
    setKept("state", "RUNNING");
    return nullptr;
  }
  PlistValue countWithRequest(const PlistValue&) {
    setKept("count", context().get("count").int64Value() + 1);
    return PlistValue::dictionaryOf({{"count", context().get("count")}});
  }
  PlistValue waitForFileWithRequest(const PlistValue& request) {
    while (!ostrel::fileExists(request.get("file").stringValue()))
      ostrel::Clock::current().sleepFor(std::chrono::milliseconds(1));
    return PlistValue::dictionaryOf({{"waited", true}});
  }
  PlistValue failWithRequest(const PlistValue& request) {
    const std::string kind = request.get("kind").stringValue();
    setKept("failures", context().get("failures").int64Value() + 1);
    if (request.get("unlockFirst").boolValue()) unlockContext();
    if (kind == "exception") throw std::runtime_error("out of paper");
    if (kind == "text") throw "no toner";  // NOLINT: modules throw what they like
    if (kind == "number") throw 42;        // NOLINT
    if (kind == "bytes") throw std::runtime_error("jam \xFF\a");
    if (kind == "silent") throw Silent();
    throw static_cast<const char*>(nullptr);  // NOLINT
  }
  /// Keeps the counts it was given; "throw" in the context makes it fail.
  int doIdleAtCount(int count) override {
    const PlistValue before = context().get("counts");
    PlistValue counts = before.isNull() ? PlistValue::mutableArray() : before.mutableCopy();
    counts.append(count);
    if (!currentUserName().isNull()) counts.append("a user, which nobody is");
    setKept("counts", counts);
    if (context().get("throw").boolValue()) throw std::runtime_error("idle hands");
    return 0;
  }
  PlistValue failWhenIdleWithRequest(const PlistValue&) {
    setKept("throw", true);
    return PlistValue::dictionaryOf({});
  }
  PlistValue getCountsWithRequest(const PlistValue&) {
    return PlistValue::dictionaryOf({{"counts", context().get("counts")}}).deepMutableCopy();
  }
  /// What a module must not do.
  PlistValue leakContextWithRequest(const PlistValue&) { return context(); }
  PlistValue getAddressWithRequest(const PlistValue&) {
    const ostrel::MutexLock lock(mutex_);
    return PlistValue::dictionaryOf({{"address", address_}});
  }

 private:
  static const ostrel::OperationTable& operations() {
    static const ostrel::OperationTable table{
        {"countWithRequest:", &GoodHandler::countWithRequest},
        {"didReceiveNetworkChangedNotification:", &GoodHandler::didReceiveNetworkChangedNotification},
        {"failWhenIdleWithRequest:", &GoodHandler::failWhenIdleWithRequest},
        {"failWithRequest:", &GoodHandler::failWithRequest},
        {"getAddressWithRequest:", &GoodHandler::getAddressWithRequest},
        {"getCountsWithRequest:", &GoodHandler::getCountsWithRequest},
        {"getStateWithRequest:", &GoodHandler::getStateWithRequest},
        {"leakContextWithRequest:", &GoodHandler::leakContextWithRequest},
        {"waitForFileWithRequest:", &GoodHandler::waitForFileWithRequest},
    };
    return table;
  }
  void setKept(const char* key, PlistValue value) {
    PlistValue mine = context();
    mine.set(key, std::move(value));
    mine.set("contextDirty", true);
  }
  void didReceiveNetworkChangedNotification(ostrel::NetworkChangeContext& change) {
    const ostrel::MutexLock lock(mutex_);
    address_ = change.newAddr();
  }

  ostrel::Mutex mutex_;
  PlistValue address_ OSTREL_GUARDED_BY(mutex_) = "none";
};

}  // namespace

OSTREL_MODULE(GoodHandler)
