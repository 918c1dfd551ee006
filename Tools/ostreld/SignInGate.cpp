#include "ostreld/SignInGate.h"

#include <algorithm>
#include <cmath>
#include <thread>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/DirectoryNode.h"

namespace ostrel {
namespace {

constexpr std::size_t mostCounts = 4096;
constexpr double failuresWithoutDoubling = 9;
constexpr double failuresPerDoubling = 3;

SignInLimits withProcessors(SignInLimits limits) {
  if (limits.checksAtOnce == 0) limits.checksAtOnce = std::clamp(std::thread::hardware_concurrency(), 2U, 8U);
  return limits;
}

}  // namespace

SignInGate::SignInGate(const SignInLimits& limits) : limits_(withProcessors(limits)) {}

/// The failures that are not forgotten yet.
double SignInGate::left(const Count& count, Time time) const {
  const double forgotten =
      std::chrono::duration<double>(time - count.when) / std::chrono::duration<double>(limits_.forgetsOne);
  return std::max(0.0, count.failures - forgotten);
}

double SignInGate::left(const Counts& counts, std::string_view key, Time time) const {
  const auto found = counts.find(key);
  return found == counts.end() ? 0 : left(found->second, time);
}

/// Adds to a count, or takes away from it; what it is then.
double SignInGate::add(Counts& counts, std::string_view key, double failures, Time time) const {
  const double sum = left(counts, key, time) + failures;
  const auto found = counts.find(key);
  if (sum <= 0) {
    if (found != counts.end()) counts.erase(found);
    return 0;
  }
  if (found != counts.end()) {
    found->second = {sum, time};
  } else {
    if (counts.size() >= mostCounts) makeRoom(counts, time);
    counts.emplace(key, Count{sum, time});
  }
  return sum;
}

/// Half of them at once, so that a flood of names costs little each.
void SignInGate::makeRoom(Counts& counts, Time time) const {
  std::vector<double> failures;
  for (const auto& [key, count] : counts) failures.push_back(left(count, time));
  const auto middle = failures.begin() + static_cast<std::ptrdiff_t>(failures.size() / 2);
  std::ranges::nth_element(failures, middle);
  std::size_t surplus = counts.size() / 2;
  std::erase_if(counts,
                [&](const auto& item) { return left(item.second, time) <= *middle && surplus > 0 && surplus-- > 0; });
}

SignInGate::Entry SignInGate::enter(const std::string& peer) {
  Clock& clock = Clock::current();
  const auto limit = static_cast<double>(limits_.failuresPerPeer);
  const std::size_t share = std::max<std::size_t>(limits_.checksAtOnce / 2, 1);  // the others get their turn, too
  const Time deadline = clock.monotonic() + limits_.patience;
  const MutexLock lock(mutex_);
  for (;;) {
    const Time time = clock.monotonic();
    const double failures = left(peers_, peer, time);
    if (failures + 1 > limit) return Entry::tooManyFailures;
    if (stopping_ || time >= deadline) return Entry::tooBusy;
    // Checks under way might all fail: together with the failures they must not go beyond the limit either.
    const auto mine = checksOfPeer_.find(peer);
    const std::size_t underWay = mine == checksOfPeer_.end() ? 0 : mine->second;
    const bool hasRoom = checks_ < limits_.checksAtOnce && underWay < share;
    if (hasRoom && failures + static_cast<double>(underWay) + 1 <= limit) break;
    clock.waitFor(changed_, mutex_, deadline - time);
  }
  ++checks_;
  ++checksOfPeer_[peer];
  return Entry::open;
}

void SignInGate::endCheck(const std::string& peer) {
  --checks_;
  const auto mine = checksOfPeer_.find(peer);
  if (--mine->second == 0) checksOfPeer_.erase(mine);
  changed_.notifyAll();
}

void SignInGate::leaveAccepted(const std::string& peer, std::string_view user) {
  const Time time = Clock::current().monotonic();
  const std::string name = foldedCase(user);
  const MutexLock lock(mutex_);
  // Only this user's failures: one who can sign in must not clear the way for guesses at others.
  const double failures = left(users_, name, time);
  add(users_, name, -failures, time);
  add(peers_, peer, -failures, time);
  endCheck(peer);
}

void SignInGate::leaveRefused(const std::string& peer, std::string_view user, Time begun) {
  Clock& clock = Clock::current();
  const std::string name = foldedCase(user);
  Time time = clock.monotonic();
  const MutexLock lock(mutex_);
  const double ofUser = add(users_, name, 1, time);
  const double ofPeer = add(peers_, peer, 1, time);
  endCheck(peer);
  const Time step = failureTime(std::max(ofUser, ofPeer));
  Time answer = begun + step;
  while (answer < time) answer += step;  // a slow check shows in whole steps only
  while (!stopping_ && (time = clock.monotonic()) < answer) clock.waitFor(changed_, mutex_, answer - time);
}

SignInGate::Time SignInGate::failureTime(double failures) const {
  const double doublings = std::ceil(std::max(0.0, failures - failuresWithoutDoubling) / failuresPerDoubling);
  const double factor = std::exp2(std::min(doublings, 20.0));
  const auto time = std::chrono::duration_cast<Time>(std::chrono::duration<double>(limits_.failureTime) * factor);
  return std::max<Time>(std::chrono::milliseconds(1), std::min<Time>(time, limits_.longestFailure));
}

std::chrono::seconds SignInGate::waitOf(const std::string& peer) {
  const Time time = Clock::current().monotonic();
  const MutexLock lock(mutex_);
  const double tooMany = left(peers_, peer, time) + 1 - static_cast<double>(limits_.failuresPerPeer);
  const double seconds = std::max(0.0, tooMany) * std::chrono::duration<double>(limits_.forgetsOne).count();
  return std::chrono::seconds(static_cast<std::int64_t>(std::ceil(seconds)));
}

void SignInGate::stop() {
  const MutexLock lock(mutex_);
  stopping_ = true;
  changed_.notifyAll();
}

}  // namespace ostrel
