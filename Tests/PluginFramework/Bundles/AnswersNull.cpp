// A module whose request entry answers nothing.
#include "PluginFramework/PluginRequestHandler.h"

namespace {

class SilentHandler : public ostrel::PluginRequestHandler {
 public:
  SilentHandler() : PluginRequestHandler(operations()) {}
  ostrel::PlistValue doProcessInputWithRequest(const ostrel::PlistValue&, const ostrel::PlistValue&, int*) override {
    return nullptr;
  }

 private:
  static const ostrel::OperationTable& operations() {
    static const ostrel::OperationTable none({});
    return none;
  }
};

}  // namespace

OSTREL_MODULE(SilentHandler)
