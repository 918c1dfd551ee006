// A module that cannot be made.
#include <stdexcept>

#include "PluginFramework/PluginRequestHandler.h"

namespace {

class FailingHandler : public ostrel::PluginRequestHandler {
 public:
  FailingHandler() : PluginRequestHandler(operations()) { throw std::runtime_error("licence expired"); }

 private:
  static const ostrel::OperationTable& operations() {
    static const ostrel::OperationTable none({});
    return none;
  }
};

}  // namespace

OSTREL_MODULE(FailingHandler)
