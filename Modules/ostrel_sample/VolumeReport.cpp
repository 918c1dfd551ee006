#include "VolumeReport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "HostFacts/VolumeSupportsFullsync.h"
#include "Platform/Clock.h"
#include "Platform/Volumes.h"

namespace ostrel::sample {
namespace {

constexpr auto patience = std::chrono::seconds(2);
constexpr std::size_t mostVolumes = 64;

bool isOnTheNetwork(const Volume& volume) {
  constexpr std::string_view types[] = {"nfs", "nfs4", "cifs",      "smb3",           "ceph",
                                        "9p",  "afs",  "fuse.ceph", "fuse.glusterfs", "fuse.sshfs"};
  return std::ranges::find(types, volume.type) != std::end(types);
}

// A person's volumes, without what the kernel, containers and packages mount for themselves.
bool isMain(const Volume& volume) {
  if (volume.type == "squashfs") return false;
  return volume.path == "/" || volume.device.starts_with("/dev/") || volume.type == "zfs" || isOnTheNetwork(volume);
}

std::vector<Volume> mainVolumes() {
  std::vector<Volume> volumes = Volumes::current().list();
  std::erase_if(volumes, [](const Volume& each) { return !isMain(each); });
  // Of one mounted over another only the upper one, which is the later, can be reached.
  std::ranges::reverse(volumes);
  std::ranges::stable_sort(volumes, {}, &Volume::path);
  std::set<std::string> paths;
  std::set<std::string> devices;
  std::erase_if(volumes, [&](const Volume& each) {
    return !paths.insert(each.path).second || !devices.insert(each.device).second;
  });
  if (volumes.size() > mostVolumes) volumes.resize(mostVolumes);
  return volumes;
}

const char* wordsFor(std::int32_t result) {
  switch (result) {
    case fullsyncSupported:
      return "supported";
    case fullsyncNotSupported:
      return "not supported, or not known";
    case fullsyncNoDevice:
      return "no disk of this machine";
    default:
      return "not examined";
  }
}

PlistValue answerFor(const std::string& path) {
  PlistValue reason;
  const std::int32_t result = VolumeSupportsFullsync(path, &reason);
  const int error = errno;
  PlistValue answer = PlistValue::mutableDictionaryOf({{"fullSync", wordsFor(result)}, {"fullSyncResult", result}});
  if (result == fullsyncFailed) answer.set("failure", std::system_category().message(error));
  answer.set("reasonCode", reason.get("ReasonCode"));
  answer.set("interconnects", VolumeInterconnects(path));
  return answer;
}

}  // namespace

struct VolumeReport::Question {
  Mutex mutex;
  Condition answered;
  bool hasEnded OSTREL_GUARDED_BY(mutex) = false;
  PlistValue answer OSTREL_GUARDED_BY(mutex);  // null where it failed

  void end(const PlistValue& with) {
    const MutexLock lock(mutex);
    answer = with;
    hasEnded = true;
    answered.notifyAll();
  }

  // Null when there was no answer by then.
  PlistValue waitUntil(std::chrono::nanoseconds deadline) {
    const MutexLock lock(mutex);
    while (!hasEnded) {
      const auto left = deadline - Clock::current().monotonic();
      if (left.count() <= 0 || !Clock::current().waitFor(answered, mutex, left)) break;
    }
    return answer;
  }

  bool isOpen() {
    const MutexLock lock(mutex);
    return !hasEnded;
  }
};

// The thread is left alone: nothing ends one that the kernel holds because a server is gone.
std::shared_ptr<VolumeReport::Question> VolumeReport::ask(const std::string& path) {
  const MutexLock lock(mutex_);
  std::shared_ptr<Question>& question = open_[path];
  if (question && question->isOpen()) return question;
  question = std::make_shared<Question>();
  try {
    std::thread([question, path] {
      try {
        question->end(answerFor(path));
      } catch (const std::exception&) {
        question->end({});
      }
    }).detach();
  } catch (const std::system_error&) {
    question->end({});  // no thread to be had
  }
  return question;
}

PlistValue VolumeReport::take() {
  const std::vector<Volume> volumes = mainVolumes();
  std::vector<std::shared_ptr<Question>> questions;
  questions.reserve(volumes.size());
  for (const Volume& volume : volumes) questions.push_back(ask(volume.path));

  const auto deadline = Clock::current().monotonic() + patience;
  PlistValue report = PlistValue::mutableArray();
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    const PlistValue path = PlistValue::stringFromUTF8(volumes[i].path);
    const PlistValue device = PlistValue::stringFromUTF8(volumes[i].device);
    const PlistValue answer = questions[i]->waitUntil(deadline);
    if (path.isNull()) continue;
    PlistValue told = PlistValue::mutableDictionaryOf({{"path", path}});
    told.set("device", device);
    told.set("fileSystem", PlistValue::stringFromUTF8(volumes[i].type));
    told.set("fullSync", "no answer");
    for (const PlistEntry& entry : answer.entries()) told.set(entry.keyText(), entry.value);
    report.append(told);
  }
  const MutexLock lock(mutex_);
  std::erase_if(open_, [](const auto& each) { return !each.second->isOpen(); });
  return report;
}

}  // namespace ostrel::sample
