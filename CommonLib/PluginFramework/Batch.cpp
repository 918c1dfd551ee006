// Batch requests: several commands side by side, one answer.
#include <chrono>
#include <memory>
#include <string_view>

#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"
#include "PluginFramework/Internal/BackgroundThreads.h"
#include "PluginFramework/Internal/BatchResults.h"
#include "PluginFramework/Internal/LimitedWaits.h"
#include "PluginFramework/Internal/ModuleException.h"

namespace ostrel {
namespace {

constexpr std::chrono::seconds longestBatch{900};
constexpr std::chrono::seconds lingerAfterCommand{5};

}  // namespace

PlistValue BundleManager::doBatchCommand(const PlistValue& request, const PlistValue& user,
                                         const BatchObserver& observer) {
  const bool asDictionary = request.get("sendResponsesAsDictionary").boolValue();
  const PlistValue requests = request.get("requestsArray");
  if (!requests.isArray()) return nullptr;

  const auto results =
      std::make_shared<BatchResults>(asDictionary ? BatchResults::Shape::dictionary : BatchResults::Shape::array);
  int started = 0;
  for (const PlistValue& member : requests.elements()) {
    // Those that were started go on, and answer into results that nobody reads.
    if (!member.isDictionary()) return nullptr;
    startBatchItem({results, member.get("request"), member.get("name"), user, observer});
    ++started;
  }
  const detail::LimitedWait wait(*waits_, longestBatch);
  const bool isComplete = results->waitFor(started, longestBatch);
  if (!isComplete) {
    if (plugInLogging) logNotice("[%d] outstanding requests are: %s", processId(), describeOutstandingRequests());
    logNotice("[%d] Batch request timeout.  Killing ostreld.", processId());
    forceQuitNow_PleaseLookAtHungThreadAndNotThisThread();
  }
  return results->answer(isComplete);
}

/// Without a thread for it, the command runs here and now: a batch that is slow is better than one that fails halfway,
/// with some of its commands carried out. What a thread does after its command is left out.
void BundleManager::startBatchItem(const BatchItem& item) {
  if (!background_->tryStart([this, item] { doOneBatchCommand(item); })) runBatchItem(item);
}

void BundleManager::doOneBatchCommand(const BatchItem& item) {
  runBatchItem(item);
  background_->linger(lingerAfterCommand);
}

/// A failure does not advance the condition: the batch then runs into its limit, and the process is quit as for a hang.
void BundleManager::runBatchItem(const BatchItem& item) {
  try {
    const auto begun = Clock::current().monotonic();
    const PlistValue response = doCommand(item.request, item.module.stringValue(), item.user);
    if (item.observer) item.observer(item, response, Clock::current().monotonic() - begun);
    item.results->add(response, item.module, item.request.get("command"));
  } catch (...) {
    logNotice("[%d] Exception in doBatchCommand (module = %@): %@", processId(), item.module,
              detail::describeCurrentException());
    logNotice("[%d] --request was %@", processId(), item.request);
  }
}

}  // namespace ostrel
