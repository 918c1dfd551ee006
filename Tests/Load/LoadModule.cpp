// The module that the load program drives, under several names at once.
#include <chrono>
#include <string>

#include "Containers/ErrorCodes.h"
#include "Load/WriterContext.h"
#include "Platform/Clock.h"
#include "PluginFramework/PluginRequestHandler.h"

namespace ostrel {

class LoadModule : public PluginRequestHandler {
 public:
  LoadModule() : PluginRequestHandler(operations()) {}

  /// Keeps "number" under "key": acknowledged numbers must never be lost.
  PlistValue keepWithRequest(const PlistValue& request) {
    const PlistValue key = request.get("key");
    if (!key.isString()) return responseForError(errors::invalidArgument);
    PlistValue kept = context();
    kept.set(key.stringValue(), request.get("number"));
    kept.set("contextDirty", true);
    return PlistValue::dictionaryOf({{"number", request.get("number")}});
  }
  PlistValue readWithRequest(const PlistValue& request) {
    return PlistValue::dictionaryOf({{"number", context().get(request.get("key").stringValue()).int64Value()}});
  }
  /// Whether what a writer outside the daemon left is whole, and its number.
  PlistValue foreignWithRequest(const PlistValue&) {
    return PlistValue::dictionaryOf({{"number", load::writtenNumber(context())},
                                     {"isWhole", load::isWhole(context())},
                                     {"keys", context().count()},
                                     {"padding", context().get("padding").stringValue().size()}});
  }
  /// Holds the context's lock for a while.
  PlistValue slowWithRequest(const PlistValue& request) {
    Clock::current().sleepFor(std::chrono::milliseconds(20));
    return readWithRequest(request);
  }
  PlistValue fillWithRequest(const PlistValue&) { return PlistValue::dictionaryOf({{"text", std::string(4096, 'x')}}); }

 protected:
  /// Counts idle passes, but not in a context that another process writes: the host's own write of the same second
  /// would replace what that one wrote.
  int doIdleAtCount(int /*count*/) override {
    PlistValue kept = context();
    if (load::belongsToWriter(kept)) return 0;
    kept.set("idle", kept.get("idle").int64Value() + 1);
    kept.set("contextDirty", true);
    return 0;
  }

 private:
  static const OperationTable& operations() {
    static const OperationTable table{{"keepWithRequest:", &LoadModule::keepWithRequest},
                                      {"readWithRequest:", &LoadModule::readWithRequest},
                                      {"foreignWithRequest:", &LoadModule::foreignWithRequest},
                                      {"slowWithRequest:", &LoadModule::slowWithRequest},
                                      {"fillWithRequest:", &LoadModule::fillWithRequest}};
    return table;
  }
};

}  // namespace ostrel

OSTREL_MODULE(ostrel::LoadModule)
