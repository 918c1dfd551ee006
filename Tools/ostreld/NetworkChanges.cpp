#include "ostreld/NetworkChanges.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "Containers/Format.h"
#include "Network/NetworkState.h"
#include "Platform/Clock.h"
#include "Platform/Mutex.h"
#include "Platform/NetworkEvents.h"
#include "Platform/NotificationCenter.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

using std::chrono::nanoseconds;

constexpr std::chrono::seconds longToTell{10};

std::string joined(const PlistValue& names) {
  std::string text;
  for (const PlistValue& name : names.elements()) text += (text.empty() ? "" : ", ") + std::string(name.stringValue());
  return text;
}

}  // namespace

class NetworkChanges::Shared {
 public:
  void listen(NetworkEventSource& source) {
    using Event = NetworkEventSource::Event;
    Event event = source.wait();
    for (; event == Event::changed; event = source.wait()) {
      const nanoseconds now = Clock::current().monotonic();
      const MutexLock lock(mutex_);
      if (!firstNews_) firstNews_ = now;
      lastNews_ = now;
      changed_.notifyAll();
    }
    if (event == Event::ended) return;
    isWatching = false;
    logAt(LogLevel::error, "[%d] network changes are not watched any more: %s", processId(), std::strerror(errno));
  }

  void tell() {
    PlistValue told = lookUp();
    while (waitUntilSettled()) {
      if (networkChangeIsNone(told)) continue;
      const PlistValue state = lookUp();
      if (state == told || !mayBegin(Activity::telling)) continue;
      post(networkChangedNotification(told, state));
      told = state;
    }
    end(Activity::ended);
  }

  bool stop(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const MutexLock lock(mutex_);
    isStopping_ = true;
    changed_.notifyAll();
    while (activity_ == Activity::waiting || activity_ == Activity::telling) {
      if (!changed_.waitUntil(mutex_, deadline)) break;
    }
    return activity_ == Activity::lookingUp || activity_ == Activity::ended;
  }
  bool isLookingUp() {
    const MutexLock lock(mutex_);
    return activity_ == Activity::lookingUp;
  }

  std::atomic<std::int64_t> posted = 0;
  std::atomic<bool> isWatching = false;

 private:
  enum class Activity { waiting, lookingUp, telling, ended };

  static bool networkChangeIsNone(const PlistValue& told) {
    return stateWithoutNames(networkState(false)) == stateWithoutNames(told);
  }

  /// The state with its names, null when it is time to stop. The resolver takes as long as it takes, and `stop` leaves
  /// this thread to it.
  PlistValue lookUp() {
    if (!mayBegin(Activity::lookingUp)) return {};
    PlistValue state = networkState(true);
    end(Activity::waiting);
    return state;
  }
  /// Whether that begins; not once it was told to stop.
  bool mayBegin(Activity activity) {
    const MutexLock lock(mutex_);
    if (!isStopping_) activity_ = activity;
    return !isStopping_;
  }
  void end(Activity next) {
    const MutexLock lock(mutex_);
    activity_ = next;
    changed_.notifyAll();
  }

  /// True when something happened and has settled; false when it is time to stop.
  bool waitUntilSettled() {
    Clock& clock = Clock::current();
    const MutexLock lock(mutex_);
    while (!isStopping_) {
      if (!firstNews_) {
        changed_.wait(mutex_);
        continue;
      }
      const nanoseconds left = std::min(lastNews_ + quiet, *firstNews_ + most) - clock.monotonic();
      if (left <= nanoseconds::zero()) {
        firstNews_.reset();
        return true;
      }
      clock.waitFor(changed_, mutex_, left);
    }
    return false;
  }

  void post(const Notification& notification) {
    logNotice("[%d] network change: %s", processId(), joined(notification.userInfo.get("changes")));
    const nanoseconds began = Clock::current().monotonic();
    try {
      NotificationCenter::defaultCenter().postNotification(notification);
    } catch (const std::exception& error) {
      logAt(LogLevel::error, "[%d] exception while the network change was told: %s", processId(), error.what());
    } catch (...) {
      logAt(LogLevel::error, "[%d] exception of no known type while the network change was told", processId());
    }
    ++posted;
    const nanoseconds took = Clock::current().monotonic() - began;
    if (took >= longToTell) {
      logAt(LogLevel::warning, "[%d] the modules took %d seconds to hear of a network change", processId(),
            std::chrono::duration_cast<std::chrono::seconds>(took).count());
    }
    end(Activity::waiting);
  }

  Mutex mutex_;
  Condition changed_;
  std::optional<nanoseconds> firstNews_ OSTREL_GUARDED_BY(mutex_);  // since the last look
  nanoseconds lastNews_ OSTREL_GUARDED_BY(mutex_){};
  Activity activity_ OSTREL_GUARDED_BY(mutex_) = Activity::waiting;
  bool isStopping_ OSTREL_GUARDED_BY(mutex_) = false;
};

NetworkChanges::NetworkChanges(bool isWanted) : shared_(std::make_shared<Shared>()) {
  if (!isWanted) return;
  source_ = NetworkEvents::current().open();
  if (!source_) {
    logAt(LogLevel::warning, "[%d] network changes are not watched: %s", processId(), std::strerror(errno));
    return;
  }
  try {
    shared_->isWatching = true;
    teller_ = std::thread([shared = shared_] { shared->tell(); });
    listener_ = std::thread([shared = shared_, source = source_] { shared->listen(*source); });
  } catch (const std::system_error& error) {
    shared_->isWatching = false;
    logAt(LogLevel::error, "[%d] network changes are not watched: no thread: %s", processId(), error.what());
  }
}

NetworkChanges::~NetworkChanges() {
  stop(std::chrono::milliseconds::zero());
  if (listener_.joinable()) listener_.join();
  if (!teller_.joinable()) return;
  if (shared_->isLookingUp())
    teller_.detach();
  else
    teller_.join();
}

bool NetworkChanges::stop(std::chrono::milliseconds limit) {
  if (source_) source_->end();
  return !teller_.joinable() || shared_->stop(limit);
}

std::int64_t NetworkChanges::posted() const { return shared_->posted; }

bool NetworkChanges::isWatching() const { return shared_->isWatching; }

}  // namespace ostrel
