#include "ClientSession/OstrelDaemonSessTarget.h"

#include <utility>

namespace ostrel {
namespace {

class WeakTarget final : public OstrelDaemonSessTarget {
 public:
  explicit WeakTarget(std::weak_ptr<OstrelDaemonSessTarget> target) : target_(std::move(target)) {}
  bool respondsTo(std::string_view operation) const override {
    const auto target = target_.lock();
    return target != nullptr && target->respondsTo(operation);
  }
  void perform(std::string_view operation, OstrelDaemonSessNotification& notification) override {
    if (const auto target = target_.lock()) target->perform(operation, notification);
  }

 private:
  const std::weak_ptr<OstrelDaemonSessTarget> target_;
};

}  // namespace

std::shared_ptr<OstrelDaemonSessTarget> OstrelDaemonSessTarget::weaklyReferring(
    std::weak_ptr<OstrelDaemonSessTarget> target) {
  return std::make_shared<WeakTarget>(std::move(target));
}

}  // namespace ostrel
