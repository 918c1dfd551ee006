#include "Platform/NotificationCenter.h"

#include <algorithm>
#include <utility>

#include "Containers/Format.h"

namespace ostrel {

std::string Notification::description() const {
  return format("{name = %@; object = %@; userInfo = %@}", name, object, userInfo);
}

// One callback under way: counted from before it starts until after it has returned or thrown.
class NotificationCenter::Call {
 public:
  Call(NotificationCenter& center, std::shared_ptr<Registration> registration)
      : center_(center), registration_(std::move(registration)) {
    const MutexLock lock(center_.mutex_);
    if (registration_->removed) return;
    center_.running_.push_back({registration_, std::this_thread::get_id()});
    counted_ = true;
  }
  ~Call() {
    if (!counted_) return;
    const MutexLock lock(center_.mutex_);
    const auto mine = std::ranges::find_if(center_.running_, [&](const RunningCall& call) {
      return call.registration == registration_ && call.thread == std::this_thread::get_id();
    });
    center_.running_.erase(mine);
    center_.callEnded_.notifyAll();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  void run(const Notification& notification) {
    if (counted_) registration_->callback(notification);
  }

 private:
  NotificationCenter& center_;
  std::shared_ptr<Registration> registration_;
  bool counted_ = false;
};

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;
  return *center;
}

void NotificationCenter::addObserver(const void* observer, const std::string& name, Callback callback,
                                     PlistValue object) {
  auto registration = std::make_shared<Registration>();
  registration->observer = observer;
  registration->name = name;
  registration->object = std::move(object);
  registration->callback = std::move(callback);
  const MutexLock lock(mutex_);
  registrations_.push_back(std::move(registration));
}

void NotificationCenter::postNotification(const Notification& notification) {
  std::vector<std::shared_ptr<Registration>> called;
  {
    const MutexLock lock(mutex_);
    for (const auto& registration : registrations_) {
      const bool nameMatches = registration->name.empty() || registration->name == notification.name;
      if (nameMatches && (registration->object.isNull() || registration->object == notification.object))
        called.push_back(registration);
    }
  }
  for (const auto& registration : called) Call(*this, registration).run(notification);
}

void NotificationCenter::remove(const void* observer, const std::string* name) {
  const auto concerns = [&](const std::shared_ptr<Registration>& registration) {
    return registration->observer == observer && (name == nullptr || registration->name == *name);
  };
  // Callbacks may own anything: they are destroyed after the lock is given up.
  std::vector<std::shared_ptr<Registration>> removed;
  const MutexLock lock(mutex_);
  for (const auto& registration : registrations_) {
    if (!concerns(registration)) continue;
    registration->removed = true;
    removed.push_back(registration);
  }
  std::erase_if(registrations_, concerns);
  const auto here = [&](const RunningCall& call) {
    return call.registration->observer == observer && call.thread == std::this_thread::get_id();
  };
  if (std::ranges::any_of(running_, here)) return;
  const auto concernsCall = [&](const RunningCall& call) { return concerns(call.registration); };
  while (std::ranges::any_of(running_, concernsCall)) callEnded_.wait(mutex_);
}

}  // namespace ostrel
