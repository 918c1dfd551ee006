// PluginRequestHandler: the base class of every module's handler.
#pragma once

#include <concepts>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/ModuleBundle.h"

namespace ostrel {

class NetworkChangeContext;
struct Notification;
class PluginRequestHandler;

/// One operation that a handler answers to by name: a command operation ("getStateWithRequest:", request in, response
/// out) or "didReceiveNetworkChangedNotification:".
struct PluginOperation {
  using Command = PlistValue (PluginRequestHandler::*)(const PlistValue& request);
  using NetworkObserver = void (PluginRequestHandler::*)(NetworkChangeContext& change);

  template <class Handler>
  PluginOperation(std::string_view operationName, PlistValue (Handler::*operation)(const PlistValue&))
      : name(operationName), command(static_cast<Command>(operation)) {}
  template <class Handler>
  PluginOperation(std::string_view operationName, void (Handler::*operation)(NetworkChangeContext&))
      : name(operationName), networkObserver(static_cast<NetworkObserver>(operation)) {}

  std::string name;
  Command command = nullptr;
  NetworkObserver networkObserver = nullptr;
};

/// The operations of one handler class by their run-time names. Immutable.
class OSTREL_EXPORT OperationTable {
 public:
  OperationTable(std::initializer_list<PluginOperation> operations);
  /// The table of a base class with more: an operation of the same name replaces the base's.
  OperationTable(const OperationTable& base, std::initializer_list<PluginOperation> operations);

  /// The operation of that name, or nullptr.
  const PluginOperation* find(std::string_view name) const noexcept;

 private:
  void add(std::initializer_list<PluginOperation> operations);

  std::map<std::string, PluginOperation, std::less<>> operations_;
};

/// The base class of every module's handler. A module derives from it, names its operations in a table and defines its
/// factory:
///
///     class SampleHandler : public ostrel::PluginRequestHandler {
///      public:
///       SampleHandler() : PluginRequestHandler(operations()) {}
///       PlistValue getStateWithRequest(const PlistValue& request);
///      private:
///       static const ostrel::OperationTable& operations() {
///         static const ostrel::OperationTable table{{"getStateWithRequest:", &SampleHandler::getStateWithRequest}};
///         return table;
///       }
///     };
///     OSTREL_MODULE(SampleHandler)
///
/// The command "getState" is then served by "getStateWithRequest:". Names are case-sensitive. "setStateWithRequest:"
/// and "tailFileWithRequest:" are always there. Three more names in the table have a meaning of their own:
/// "getStateWithRequest:" answers after a state change that returned nothing, "getLogPathsWithRequest:" gives the logs
/// that "tailFile" may read (identifier to path), "didReceiveNetworkChangedNotification:" hears of network changes.
///
/// Threads: one instance serves all requests of its module, on any threads at once. Request, context and lock
/// descriptor belong to the thread (keyed by the class of the handler); a class that is entered again on one thread
/// overwrites its own entry until that call returns. The host lets only one request at a time into a module, by the
/// lock of its context, until the operation returns or calls `unlockContext`. A response is sent after that: it shares
/// no mutable part of the context.
///
/// What an operation throws passes through this class; the host turns it into a response. Request and context stay with
/// the thread then, without the descriptor, until its next request or idle call.
class OSTREL_EXPORT PluginRequestHandler {
 public:
  /// `dealloc`: stops observing.
  virtual ~PluginRequestHandler();
  PluginRequestHandler(const PluginRequestHandler&) = delete;
  PluginRequestHandler& operator=(const PluginRequestHandler&) = delete;

  /// Whether there is an operation of that run-time name, in the table or of this class itself.
  bool respondsTo(std::string_view operationName) const noexcept;

  // Entries for the host.

  /// `doProcessInputWithRequest:context:lockFileFD:`: runs the operation that "command" names. `*lockFileFD` is the
  /// descriptor of the locked context file and receives what the operation left of it: -1 after `unlockContext`.
  /// Null when "command" is absent or no string; {"error": "UNEXPECTED_COMMAND"} when it names no operation or the
  /// operation returned no dictionary.
  virtual PlistValue doProcessInputWithRequest(const PlistValue& request, const PlistValue& context, int* lockFileFD);

  /// `doProcessArgsWithArgc:argv:context:lockFileFD:`: the command line (program, "idle", count) calls `doIdleAtCount`
  /// and returns its answer; any other returns 0.
  virtual int doProcessArgsWithArgc(int argc, const char* const* argv, const PlistValue& context, int* lockFileFD);

  // For the module's operations, while a request or an idle call runs on this thread.

  /// The request, or null (idle).
  PlistValue currentRequest() const;
  /// The "command" of the request, or null.
  PlistValue currentCommand() const;
  /// The name of the requesting user, or null (idle).
  PlistValue currentUserName() const;
  /// The module's context, mutable and locked; set "contextDirty" in it to have it written back. Null outside.
  PlistValue context() const;
  /// Writes back and releases the context now: for operations that go on for long without it. Afterwards the context,
  /// and the user's name in it, may be another request's on another thread: do not touch them, take what is needed
  /// before. Nothing happens when it is released already, or outside a request.
  void unlockContext();

  /// `responseForError:`: {"error": the code}.
  static PlistValue responseForError(const char* errorCode);

  // Operations that a module may override.

  /// `startServiceWithVariant:` and its kin serve the command "setState" with "START", "STOP", "RESTART" and
  /// "RECYCLE". `variant` is the request's, may be null and means what the module defines. Null: the state is then
  /// asked of "getStateWithRequest:". By default null; a restart stops and then starts.
  virtual PlistValue startServiceWithVariant(const PlistValue& variant);
  virtual PlistValue stopServiceWithVariant(const PlistValue& variant);
  virtual PlistValue restartServiceWithVariant(const PlistValue& variant);
  virtual PlistValue recycleServiceWithVariant(const PlistValue& variant);

  /// `doIdleAtCount:`: the periodic call, with the context locked; counts from 0. By default 0.
  virtual int doIdleAtCount(int count);

  /// `setStateWithRequest:`: runs the operation above that "state" names with "variant".
  virtual PlistValue setStateWithRequest(const PlistValue& request);

  /// `tailFileWithRequest:`: the tail of an allowed log, by "identifier" or "path", from "offset", at most "amount"
  /// bytes (see DaemonServices/LogTail.h). May read for 20 seconds.
  virtual PlistValue tailFileWithRequest(const PlistValue& request);

  // Wiring.

  /// `handleNetworkDidChangeNotification:`: hands the change to "didReceiveNetworkChangedNotification:" if there is
  /// one, on the thread that posted the notification.
  void handleNetworkDidChangeNotification(const Notification& notification);

  /// `storeContext:request:andLockFD:`: makes this thread's entry. A null request leaves the entry's request alone.
  void storeContext(const PlistValue& context, const PlistValue& request, const int* lockFileFD);
  /// Removes this thread's entry; returns its descriptor, -1 when there is none.
  int cleanupFromRequest();

 protected:
  /// `init`. The table is borrowed for the life of the handler.
  explicit PluginRequestHandler(const OperationTable& operations);

  // Registering for network changes (notification "com.brantle.ostrel_info.netchanged"), when the table has
  // "didReceiveNetworkChangedNotification:". The notification may come on any thread at any moment, so it must find a
  // whole object: a module's instance starts to observe after the last of its constructors and stops before the
  // first of its destructors, waiting for a callback that runs. OSTREL_MODULE makes instances that do so; a handler
  // that is made directly does not observe.
  void startObserving();
  void stopObserving();

 private:
  const PluginOperation* findOperation(std::string_view name) const noexcept;
  /// Calls the command operation of that name, or answers null when there is none.
  PlistValue callIfPresent(std::string_view name, const PlistValue& request);

  const OperationTable& operations_;
};

namespace detail {

template <class Handler>
class ModuleInstance final : public Handler {
 public:
  ModuleInstance() { this->startObserving(); }
  ~ModuleInstance() override { this->stopObserving(); }
  ModuleInstance(const ModuleInstance&) = delete;
  ModuleInstance& operator=(const ModuleInstance&) = delete;
};

template <std::derived_from<PluginRequestHandler> Handler>
void* createModuleInstance() {
  static_assert(!std::is_final_v<Handler>, "a handler class is completed by a class of its own: do not make it final");
  return static_cast<PluginRequestHandler*>(new ModuleInstance<Handler>());
}

}  // namespace detail
}  // namespace ostrel

/// Defines what the host looks for in a module's shared object. Once in each module, outside any namespace. The class
/// has a default constructor and is not final.
#define OSTREL_MODULE(HandlerClass)                                                                                \
  extern "C" {                                                                                                     \
  extern OSTREL_EXPORT const ::ostrel::ModuleInterface ostrelModuleInterface;                                      \
  const ::ostrel::ModuleInterface ostrelModuleInterface = {::ostrel::moduleInterfaceVersion,                       \
                                                           &::ostrel::detail::createModuleInstance<HandlerClass>}; \
  }
