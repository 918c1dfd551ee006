#include "PluginFramework/BundleManager.h"

#include <algorithm>
#include <cctype>
#include <compare>
#include <cstdlib>
#include <optional>
#include <utility>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/ModuleBundle.h"
#include "Platform/NotificationCenter.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/Envelope.h"
#include "PluginFramework/Internal/BackgroundThreads.h"
#include "PluginFramework/Internal/LimitedWaits.h"
#include "PluginFramework/Internal/ModuleException.h"
#include "PluginFramework/PluginRequestHandler.h"

namespace ostrel {
namespace {

constexpr const char* bundleDirectory = "/usr/share/ostreld/bundles/";
constexpr const char* debugMarker = "/var/tmp/ostrel_plugin_debug";
constexpr std::chrono::seconds longestWaitAtExit{5};

std::atomic<BundleManager*> sharedManager = nullptr;

PlistValue errorResponse(PlistValue code) { return PlistValue::dictionaryOf({{"error", std::move(code)}}); }

bool lessIgnoringCase(const std::string& left, const std::string& right) {
  const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
  const auto order = std::lexicographical_compare_three_way(left.begin(), left.end(), right.begin(), right.end(),
                                                            [&](char a, char b) { return lower(a) <=> lower(b); });
  return std::is_neq(order) ? std::is_lt(order) : left < right;
}

}  // namespace

// Loading.

BundleManager::BundleManager()
    : outstandingRequests(PlistValue::mutableArray()),
      plugInLogging(fileExists(hostPath(debugMarker))),
      waits_(std::make_unique<detail::LimitedWaits>()),
      background_(std::make_unique<BackgroundThreads>()) {
  const std::string directory = hostPath(bundleDirectory);
  for (const std::string& entry : listDirectory(directory).value_or(std::vector<std::string>()))
    loadBundle(directory + entry, entry.substr(0, entry.find('.')));
}

BundleManager::BundleManager(std::string_view moduleName)
    : plugInLogging(fileExists(hostPath(debugMarker))),
      waits_(std::make_unique<detail::LimitedWaits>()),
      background_(std::make_unique<BackgroundThreads>()) {
  const std::string name(moduleName);
  if (name.find('/') != std::string::npos) {
    loadFailures_.push_back({name, "a module's name holds no \"/\""});
  } else {
    loadBundle(hostPath(bundleDirectory) + name + ".bundle", name);
  }
}

// While all members are there: an observer that is waited for may run another request.
BundleManager::~BundleManager() { background_->waitUntilNone(); }

void BundleManager::loadBundle(const std::string& path, const std::string& moduleName) {
  if (plugInLogging) logNotice("[%d] Loading module %@", processId(), moduleName);
  std::string reason;
  try {
    std::shared_ptr<ModuleBundle> bundle = ModuleLoader::current().load(path, &reason);
    if (bundle != nullptr) {
      std::unique_ptr<PluginRequestHandler> handler(static_cast<PluginRequestHandler*>(bundle->create()));
      if (handler != nullptr) {
        modules[moduleName] = std::move(handler);
        bundles[moduleName] = std::move(bundle);
        return;
      }
      reason = "its factory made no handler";
    }
  } catch (...) {
    reason = detail::describeCurrentException().description();
  }
  loadFailures_.push_back({path, reason});
}

BundleManager& BundleManager::defaultManager() {
  static BundleManager& manager = []() -> BundleManager& {
    sharedManager = new BundleManager;
    // Made after the services that its threads use, so that this runs before they go.
    std::atexit([] { sharedManager.load()->finishBackgroundWork(longestWaitAtExit); });
    return *sharedManager;
  }();
  return manager;
}

std::shared_ptr<BundleManager> BundleManager::managerForBundle(std::string_view moduleName) {
  if (BundleManager* shared = sharedManager.load())
    return std::shared_ptr<BundleManager>(std::shared_ptr<BundleManager>(), shared);  // borrowed
  return std::make_shared<BundleManager>(moduleName);
}

std::vector<std::string> BundleManager::moduleNames() const {
  std::vector<std::string> names;
  for (const auto& [name, handler] : modules) names.push_back(name);
  std::ranges::sort(names, lessIgnoringCase);
  return names;
}

PluginRequestHandler* BundleManager::getPrincipalClass(std::string_view name) const {
  const auto found = modules.find(name);
  return found == modules.end() ? nullptr : found->second.get();
}

const ModuleBundle* BundleManager::getBundle(std::string_view name) const {
  const auto found = bundles.find(name);
  return found == bundles.end() ? nullptr : found->second.get();
}

// Outstanding requests.

void BundleManager::addMarker(const PlistValue& marker) {
  const MutexLock lock(requestsLock);
  outstandingRequests.append(marker);
}

void BundleManager::removeMarker(const PlistValue& marker) {
  const MutexLock lock(requestsLock);
  outstandingRequests.removeIdentical(marker);
  const auto holder = contextHolders_.find(marker.get("Module").stringValue());
  if (holder != contextHolders_.end() && holder->second.isIdentical(marker)) holder->second = nullptr;
}

void BundleManager::noteContextHolder(std::string_view module, const PlistValue& marker) {
  const MutexLock lock(requestsLock);
  if (outstandingRequests.isNull()) return;
  const auto holder = contextHolders_.find(module);
  if (holder != contextHolders_.end()) {
    holder->second = marker;
  } else {
    contextHolders_.emplace(module, marker);
  }
}

PlistValue BundleManager::outstandingRequestsWithoutArguments() const {
  PlistValue copies = PlistValue::mutableArray();
  const MutexLock lock(requestsLock);
  for (const PlistValue& marker : outstandingRequests.elements()) {
    PlistValue copy = marker.mutableCopy();
    copy.remove("Request");
    copies.append(copy);
  }
  return copies;
}

std::string BundleManager::describeOutstandingRequests() const {
  const MutexLock lock(requestsLock);
  return outstandingRequests.isNull() ? PlistValue::mutableArray().description() : outstandingRequests.description();
}

PlistValue BundleManager::CopyOutstandingRequests() const {
  const MutexLock lock(requestsLock);
  return outstandingRequests.isNull() ? PlistValue::mutableArray() : outstandingRequests.mutableCopy();
}

// Requests.

PlistValue BundleManager::doCommand(const PlistValue& request, std::string_view module, const PlistValue& user) {
  // A request without a command gives a marker that ends before it.
  const PlistValue marker = PlistValue::mutableDictionaryOf({{"Module", module},
                                                             {"Timestamp", Clock::current().now()},
                                                             {"Command", request.get("command")},
                                                             {"Request", request}});
  addMarker(marker);
  PlistValue response = runInContext(request, module, user, marker);
  removeMarker(marker);
  return response;
}

PlistValue BundleManager::runInContext(const PlistValue& request, std::string_view module, const PlistValue& user,
                                       const PlistValue& marker) {
  PluginRequestHandler* handler = getPrincipalClass(module);
  if (handler == nullptr) return errorResponse(errors::cannotLoadBundle);

  int lockFileFD = -1;
  bool timedOut = false;
  PlistValue context = getAndLockContext(module, &lockFileFD, &timedOut);
  if (timedOut) return errorResponse(errors::cannotRunBundle);
  noteContextHolder(module, marker);
  if (user.isNull()) {
    remove_user_from_dict(context);
  } else {
    context.set("_user_", user);
  }

  PlistValue response = runRequest(*handler, request, module, context, &lockFileFD);
  setAndUnlockContext(context, module, &lockFileFD);
  if (request.get("command").stringValue() == "setState") announceStateChange(request, module, response);
  return response;
}

namespace {

/// A diagnostic only. The response is read after the module's lock is given up: one that can change meanwhile must have
/// no other owner, such as the context or the module.
void checkOwners(const PlistValue& response, std::string_view module, const PlistValue& request) {
  const unsigned long owners = response.shareCount();
  if (owners == 1 || !response.isMutable()) return;
  logNotice("[%d] --Module %@'s response has retain count of %lu.", processId(), module, owners);
  logNotice("[%d] --request was %@", processId(), request);
  logNotice("[%d] --response was %@", processId(), response);
}

}  // namespace

// Every handler has the request entry, so there is none to answer for that lacks it.
PlistValue BundleManager::runRequest(PluginRequestHandler& handler, const PlistValue& request, std::string_view module,
                                     const PlistValue& context, int* lockFileFD) {
  try {
    PlistValue response = handler.doProcessInputWithRequest(request, context, lockFileFD);
    if (!response.isNull()) {
      checkOwners(response, module, request);
      return response;
    }
    logNotice("[%d] --Module %@ returned nil response", processId(), module);
    return errorResponse(errors::unexpectedCommand);
  } catch (...) {
    const PlistValue reason = detail::describeCurrentException();
    logNotice("[%d] Exception in doCommand for module %@: %@", processId(), module, reason);
    logNotice("[%d] --request was %@", processId(), request);
    return reason.isNull() ? PlistValue() : errorResponse(format("NIL_RESPONSE_ERR (%@)", reason));
  }
}

// The announcement of a state change.

void BundleManager::announceStateChange(const PlistValue& request, std::string_view module,
                                        const PlistValue& response) {
  Notification notification;
  notification.name = "setState";
  notification.object = module;
  notification.userInfo = PlistValue::dictionaryOf(
      {{"bundle", module}, {"stateCommand", request.get("state")}, {"state", response.get("state")}});
  background_->start([this, notification = std::move(notification)] { postCommandNotification(notification); });
}

void BundleManager::postCommandNotification(const Notification& notification) {
  try {
    NotificationCenter::defaultCenter().postNotification(notification);
  } catch (...) {
    logNotice("[%d] Exception in postCommandNotification: %@ notification was :%@", processId(),
              detail::describeCurrentException(), notification.description());
  }
}

bool BundleManager::finishBackgroundWork(std::chrono::milliseconds limit) { return background_->waitUntilNone(limit); }

}  // namespace ostrel
