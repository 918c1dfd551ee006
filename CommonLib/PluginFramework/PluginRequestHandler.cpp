#include "PluginFramework/PluginRequestHandler.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <typeindex>
#include <unordered_map>
#include <utility>

#include "Containers/ErrorCodes.h"
#include "Containers/LeadingInteger.h"
#include "DaemonServices/LogTail.h"
#include "Network/NetworkChangeContext.h"
#include "Network/NetworkState.h"
#include "Platform/NotificationCenter.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/ContextStore.h"
#include "PluginFramework/Envelope.h"
#include "PluginFramework/Internal/ModuleException.h"

namespace ostrel {
namespace {

constexpr std::string_view networkObserverName = "didReceiveNetworkChangedNotification:";

/// What a handler knows of the request that runs on this thread.
struct RequestState {
  PlistValue context;
  PlistValue request;
  int lockFileFD = -1;
  bool isRunning = false;  // not what an exception left behind
};

std::unordered_map<std::type_index, RequestState>& statesByClass() {
  thread_local std::unordered_map<std::type_index, RequestState> states;
  return states;
}

/// This thread's entry for the class of the handler, or nullptr.
RequestState* findState(const PluginRequestHandler& handler) {
  const auto found = statesByClass().find(typeid(handler));
  return found == statesByClass().end() ? nullptr : &found->second;
}

/// Runs an operation with an entry of its own. An operation that is under way on this thread already, in a handler of
/// the same class, finds its entry again afterwards: without it, the lock that it holds would never be given up.
auto runWithState(PluginRequestHandler& handler, const PlistValue& context, const PlistValue& request, int* lockFileFD,
                  const auto& operation) {
  std::optional<RequestState> outer;
  if (const RequestState* entered = findState(handler); entered != nullptr && entered->isRunning) {
    outer = *entered;
  } else {
    handler.cleanupFromRequest();  // what an exception left behind: an idle call has no request
  }
  const auto leave = [&] {
    if (outer) statesByClass().insert_or_assign(typeid(handler), *outer);
  };
  handler.storeContext(context, request, lockFileFD);
  findState(handler)->isRunning = true;
  try {
    auto result = operation();
    *lockFileFD = handler.cleanupFromRequest();
    leave();
    return result;
  } catch (...) {
    // The entry is left for the next request to overwrite, but the host must not close a descriptor that the operation
    // has given up already, nor a later `unlockContext` one that is another file's by then.
    if (RequestState* state = findState(handler)) {
      *lockFileFD = std::exchange(state->lockFileFD, -1);
      state->isRunning = false;
    }
    leave();
    throw;
  }
}

const OperationTable& baseOperations() {
  static const OperationTable table{{"setStateWithRequest:", &PluginRequestHandler::setStateWithRequest},
                                    {"tailFileWithRequest:", &PluginRequestHandler::tailFileWithRequest}};
  return table;
}

}  // namespace

OperationTable::OperationTable(std::initializer_list<PluginOperation> operations) { add(operations); }

OperationTable::OperationTable(const OperationTable& base, std::initializer_list<PluginOperation> operations)
    : operations_(base.operations_) {
  add(operations);
}

void OperationTable::add(std::initializer_list<PluginOperation> operations) {
  for (const PluginOperation& operation : operations) operations_.insert_or_assign(operation.name, operation);
}

const PluginOperation* OperationTable::find(std::string_view name) const noexcept {
  const auto found = operations_.find(name);
  return found == operations_.end() ? nullptr : &found->second;
}

PluginRequestHandler::PluginRequestHandler(const OperationTable& operations) : operations_(operations) {}

PluginRequestHandler::~PluginRequestHandler() { stopObserving(); }

// Operations by name.

const PluginOperation* PluginRequestHandler::findOperation(std::string_view name) const noexcept {
  const PluginOperation* operation = operations_.find(name);
  return operation != nullptr ? operation : baseOperations().find(name);
}

bool PluginRequestHandler::respondsTo(std::string_view operationName) const noexcept {
  return findOperation(operationName) != nullptr;
}

PlistValue PluginRequestHandler::callIfPresent(std::string_view name, const PlistValue& request) {
  const PluginOperation* operation = findOperation(name);
  if (operation == nullptr || operation->command == nullptr) return nullptr;
  return (this->*operation->command)(request);
}

// Entries for the host.

PlistValue PluginRequestHandler::doProcessInputWithRequest(const PlistValue& request, const PlistValue& context,
                                                           int* lockFileFD) {
  const PlistValue command = request.get("command");
  if (!command.isString()) return nullptr;
  const std::string_view name = command.stringValue();
  const PluginOperation* operation = nullptr;
  // With a colon or a NUL in it the command could only name an operation of another form.
  if (name.find_first_of(std::string_view(":\0", 2)) == std::string_view::npos)
    operation = findOperation(std::string(name) + "WithRequest:");
  if (operation == nullptr || operation->command == nullptr) return responseForError(errors::unexpectedCommand);

  PlistValue response =
      runWithState(*this, context, request, lockFileFD, [&] { return (this->*operation->command)(request); });
  return response.isDictionary() ? response : responseForError(errors::unexpectedCommand);
}

int PluginRequestHandler::doProcessArgsWithArgc(int argc, const char* const* argv, const PlistValue& context,
                                                int* lockFileFD) {
  return runWithState(*this, context, nullptr, lockFileFD, [&] {
    return argc == 3 && std::string_view(argv[1]) == "idle" ? doIdleAtCount(leadingInt(argv[2])) : 0;
  });
}

void PluginRequestHandler::storeContext(const PlistValue& context, const PlistValue& request, const int* lockFileFD) {
  RequestState& state = statesByClass()[typeid(*this)];
  state.context = context;
  state.lockFileFD = *lockFileFD;
  if (!request.isNull()) state.request = request;
}

int PluginRequestHandler::cleanupFromRequest() {
  const RequestState* state = findState(*this);
  const int descriptor = state == nullptr ? -1 : state->lockFileFD;
  statesByClass().erase(typeid(*this));
  return descriptor;
}

// The request of this thread.

PlistValue PluginRequestHandler::currentRequest() const {
  const RequestState* state = findState(*this);
  return state == nullptr ? PlistValue() : state->request;
}

PlistValue PluginRequestHandler::currentCommand() const { return currentRequest().get("command"); }

PlistValue PluginRequestHandler::currentUserName() const { return do_get_user(context()); }

PlistValue PluginRequestHandler::context() const {
  const RequestState* state = findState(*this);
  return state == nullptr ? PlistValue() : state->context;
}

void PluginRequestHandler::unlockContext() {
  if (RequestState* state = findState(*this)) set_and_unlock_context(&state->lockFileFD, &state->context);
}

PlistValue PluginRequestHandler::responseForError(const char* errorCode) {
  return PlistValue::dictionaryOf({{"error", errorCode}});
}

// Operations that a module may override.

PlistValue PluginRequestHandler::startServiceWithVariant(const PlistValue&) { return nullptr; }
PlistValue PluginRequestHandler::stopServiceWithVariant(const PlistValue&) { return nullptr; }
PlistValue PluginRequestHandler::recycleServiceWithVariant(const PlistValue&) { return nullptr; }
PlistValue PluginRequestHandler::restartServiceWithVariant(const PlistValue& variant) {
  stopServiceWithVariant(variant);
  return startServiceWithVariant(variant);
}

int PluginRequestHandler::doIdleAtCount(int) { return 0; }

PlistValue PluginRequestHandler::setStateWithRequest(const PlistValue& request) {
  using StateOperation = PlistValue (PluginRequestHandler::*)(const PlistValue&);
  static constexpr std::array<std::pair<std::string_view, StateOperation>, 4> operations{{
      {"START", &PluginRequestHandler::startServiceWithVariant},
      {"STOP", &PluginRequestHandler::stopServiceWithVariant},
      {"RESTART", &PluginRequestHandler::restartServiceWithVariant},
      {"RECYCLE", &PluginRequestHandler::recycleServiceWithVariant},
  }};
  const PlistValue state = request.get("state");
  const auto selected =
      std::ranges::find_if(operations, [&](const auto& each) { return each.first == state.stringValue(); });
  if (selected == operations.end()) return responseForError(errors::invalidArgument);

  PlistValue response = (this->*selected->second)(request.get("variant"));
  return response.isNull() ? callIfPresent("getStateWithRequest:", request) : response;
}

PlistValue PluginRequestHandler::tailFileWithRequest(const PlistValue& request) {
  const PlistValue identifier = get_str_value_for_key(request, "identifier");
  const PlistValue path = get_str_value_for_key(request, "path");
  PlistValue offset = request.get("offset");
  PlistValue amount = request.get("amount");
  if (identifier.isNull() && path.isNull()) return responseForError(errors::invalidArgument);
  if (!offset.isNumber() || !amount.isNumber()) return responseForError(errors::invalidArgument);

  const PlistValue allowedLogs = callIfPresent("getLogPathsWithRequest:", request);
  PlistValue contents;
  if (!identifier.isNull()) {
    PlistValue foundPath;  // the request's own "path" does not count then
    const char* error = do_get_tail_contents_for_identifier(identifier, allowedLogs, foundPath, offset, amount,
                                                            contents, context(), request);
    if (error != nullptr) return responseForError(error);
    return PlistValue::dictionaryOf({{"identifier", identifier},
                                     {"path", foundPath},
                                     {"offset", offset},
                                     {"amount", amount},
                                     {"tailContents", contents}});
  }
  const char* error =
      do_verify_path_and_get_tail_contents(path, allowedLogs, offset, amount, contents, context(), request);
  if (error != nullptr) return responseForError(error);
  return PlistValue::dictionaryOf({{"path", path}, {"offset", offset}, {"amount", amount}, {"tailContents", contents}});
}

// Network changes.

void PluginRequestHandler::startObserving() {
  if (!respondsTo(networkObserverName)) return;
  NotificationCenter::defaultCenter().addObserver(this, networkChangedName, [this](const Notification& notification) {
    // One module's fault must not keep the change from the observers after it.
    try {
      handleNetworkDidChangeNotification(notification);
    } catch (...) {
      logNotice("[%d] Exception in didReceiveNetworkChangedNotification: %@", processId(),
                detail::describeCurrentException());
    }
  });
}

void PluginRequestHandler::stopObserving() { NotificationCenter::defaultCenter().removeObserver(this); }

void PluginRequestHandler::handleNetworkDidChangeNotification(const Notification& notification) {
  const PluginOperation* operation = findOperation(networkObserverName);
  if (operation == nullptr || operation->networkObserver == nullptr) return;
  const auto change = NetworkChangeContext::networkChangeContextWithNotification(notification);
  (this->*operation->networkObserver)(*change);
}

}  // namespace ostrel
