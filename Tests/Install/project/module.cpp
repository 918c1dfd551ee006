#include <PluginFramework/PluginRequestHandler.h>

class OutsideHandler : public ostrel::PluginRequestHandler {
 public:
  OutsideHandler() : PluginRequestHandler(operations()) {}
  ostrel::PlistValue doubleWithRequest(const ostrel::PlistValue& request) {
    return ostrel::PlistValue::dictionaryOf({{"result", 2 * request.get("number").int64Value()}});
  }

 private:
  static const ostrel::OperationTable& operations() {
    static const ostrel::OperationTable table{{"doubleWithRequest:", &OutsideHandler::doubleWithRequest}};
    return table;
  }
};

OSTREL_MODULE(OutsideHandler)
