// Key paths and deep copies beside RapidJSON's and nlohmann::json's pointers and copies, over one tree of 10,000
// leaves. The contenders take turns in an order drawn by lot; the table shows the medians of their times.
#include <rapidjson/document.h>
#include <rapidjson/pointer.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "Containers/KeyPath.h"
#include "Containers/PlistValue.h"

namespace {

using nlohmann::json;
using ostrel::KeyPath;
using ostrel::PlistValue;

constexpr int fanOut = 10;
constexpr int depth = 4;
constexpr std::size_t pathsInUse = 256;
constexpr int rounds = 101;
constexpr std::size_t passesATurn = 20;  // the copies of other contenders have emptied the caches meanwhile

const char* const levelNames[depth] = {"location", "server", "service", "setting"};

std::string keyAt(int level, int index) { return levelNames[level] + std::to_string(index); }

/// Numbers, short text and text beyond fourteen bytes in equal parts.
template <class Number, class Text>
void leaf(int number, Number takeNumber, Text takeText) {
  if (number % 3 == 0) return takeNumber(number);
  takeText(number % 3 == 1 ? "text" + std::to_string(number) : "a somewhat longer text " + std::to_string(number));
}

PlistValue ourTree(int level, int& number) {
  PlistValue made = PlistValue::mutableDictionary();
  for (int i = 0; i < fanOut; ++i) {
    const auto add = [&](const auto& value) { made.set(keyAt(level, i), value); };
    level + 1 < depth ? add(ourTree(level + 1, number)) : leaf(number++, add, add);
  }
  return made;
}

json theirTree(int level, int& number) {
  json made = json::object();
  for (int i = 0; i < fanOut; ++i) {
    const auto add = [&](const auto& value) { made[keyAt(level, i)] = value; };
    level + 1 < depth ? add(theirTree(level + 1, number)) : leaf(number++, add, add);
  }
  return made;
}

/// The same paths in both spellings, in random order.
struct Paths {
  std::vector<std::string> keyPaths;
  std::vector<std::string> pointers;
};

Paths allPaths() {
  std::vector<int> leaves(10'000);
  for (std::size_t i = 0; i < leaves.size(); ++i) leaves[i] = static_cast<int>(i);
  std::shuffle(leaves.begin(), leaves.end(), std::mt19937(1));
  Paths paths;
  for (const int number : leaves) {
    const int indexes[depth] = {number / 1000, number / 100 % 10, number / 10 % 10, number % 10};
    std::string keyPath;
    std::string pointer;
    for (int level = 0; level < depth; ++level) {
      keyPath += (level == 0 ? "" : ":") + keyAt(level, indexes[level]);
      pointer += "/" + keyAt(level, indexes[level]);
    }
    paths.keyPaths.push_back(keyPath);
    paths.pointers.push_back(pointer);
  }
  return paths;
}

struct Contender {
  const char* row;
  const char* name;
  double goal;  // for ours: nanoseconds, 0 for none
  std::size_t calls;
  std::function<void()> work;
  std::function<void()> prepare{};  // not measured, as is `release`
  std::function<void()> release{};
  std::vector<double> times{};
  double median() {
    std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
    return times[rounds / 2];
  }
};

volatile std::uint64_t sink;

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "benchmark_key_paths: %s\n", what);
  std::exit(1);
}

void measure(std::vector<Contender>& contenders) {
  std::mt19937 lot(7);
  std::vector<std::size_t> order(contenders.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  for (int round = -3; round < rounds; ++round) {
    std::shuffle(order.begin(), order.end(), lot);
    for (const std::size_t i : order) {
      if (contenders[i].prepare) contenders[i].prepare();
      const auto start = std::chrono::steady_clock::now();
      contenders[i].work();
      const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
      if (contenders[i].release) contenders[i].release();
      if (round >= 0) contenders[i].times.push_back(time.count() / static_cast<double>(contenders[i].calls));
    }
  }
}

template <class Items, class Use>
std::function<void()> overAll(const Items& items, Use use) {
  return [&items, use] {
    std::uint64_t found = 0;
    for (std::size_t pass = 0; pass < passesATurn; ++pass) {
      for (const auto& item : items) found += use(item);
    }
    require(found == items.size() * passesATurn, "a path found nothing");
    sink = found;
  };
}

template <class Made>
std::vector<Made> preparedFrom(const std::vector<std::string>& texts) {
  std::vector<Made> made;
  for (const std::string& text : texts) made.emplace_back(text);
  return made;
}

void print(std::vector<Contender>& contenders) {
  std::printf("| what | contender | ns | times ours | goal |\n|---|---|---:|---:|---|\n");
  double ours = 1;
  for (Contender& contender : contenders) {
    const double time = contender.median();
    if (contender.goal >= 0) ours = time;
    std::string goal;
    if (contender.goal > 0) goal = "at most " + std::to_string(static_cast<int>(contender.goal)) + " ns";
    if (contender.goal > 0 && time > contender.goal) goal += ", missed";
    std::printf("| %s | %s | %.1f | %.2f | %s |\n", contender.row, contender.name, time, time / ours, goal.c_str());
  }
}

}  // namespace

int main() {
  int number = 0;
  PlistValue ours = ourTree(0, number);
  number = 0;
  json nlohmannTree = theirTree(0, number);
  rapidjson::Document rapid;
  rapid.Parse(nlohmannTree.dump().c_str());
  require(!rapid.HasParseError() && number == 10'000, "the tree could not be made");

  const Paths all = allPaths();
  const Paths used{{all.keyPaths.begin(), all.keyPaths.begin() + pathsInUse},
                   {all.pointers.begin(), all.pointers.begin() + pathsInUse}};
  const auto ourPaths = preparedFrom<KeyPath>(used.keyPaths);
  const auto ourAll = preparedFrom<KeyPath>(all.keyPaths);
  const auto nlohmannPaths = preparedFrom<json::json_pointer>(used.pointers);
  const auto nlohmannAll = preparedFrom<json::json_pointer>(all.pointers);
  std::vector<rapidjson::Pointer> rapidPaths;
  std::vector<rapidjson::Pointer> rapidAll;
  for (const std::string& text : used.pointers) rapidPaths.emplace_back(text.c_str(), text.size());
  for (const std::string& text : all.pointers) rapidAll.emplace_back(text.c_str(), text.size());

  const auto getOurs = [&](const KeyPath& path) { return !path.get(ours).isNull(); };
  const auto getRapid = [&](const rapidjson::Pointer& path) { return path.Get(rapid) != nullptr; };
  const auto getNlohmann = [&](const json::json_pointer& path) { return !nlohmannTree.at(path).is_null(); };
  const PlistValue value = 42;
  const auto setOurs = [&](const KeyPath& path) { return path.set(ours, value); };
  const auto setRapid = [&](const rapidjson::Pointer& path) { return path.Set(rapid, 42).IsInt(); };
  const auto setNlohmann = [&](const json::json_pointer& path) { return (nlohmannTree[path] = 42).is_number(); };

  // The tree to be copied keeps its leaves; the others' are overwritten.
  number = 0;
  const PlistValue ourSource = ourTree(0, number);
  const json nlohmannSource = nlohmannTree;
  rapidjson::Document rapidSource;
  rapidSource.CopyFrom(rapid, rapidSource.GetAllocator());

  PlistValue ourCopy;
  std::unique_ptr<rapidjson::Document> rapidCopy;
  std::unique_ptr<json> nlohmannCopy;
  const auto copyOurs = [&] { ourCopy = ourSource.deepMutableCopy(); };
  const auto dropOurs = [&] { ourCopy = PlistValue(); };
  const auto copyRapid = [&] {
    rapidCopy = std::make_unique<rapidjson::Document>();
    rapidCopy->CopyFrom(rapidSource, rapidCopy->GetAllocator());
  };
  const auto dropRapid = [&] { rapidCopy.reset(); };
  const auto copyNlohmann = [&] { nlohmannCopy = std::make_unique<json>(nlohmannSource); };
  const auto dropNlohmann = [&] { nlohmannCopy.reset(); };

  constexpr double peer = -1;
  constexpr std::size_t usesATurn = pathsInUse * passesATurn;
  std::vector<Contender> contenders{
      {"get, prepared path", "KeyPath", 60, usesATurn, overAll(ourPaths, getOurs)},
      {"", "rapidjson::Pointer", peer, usesATurn, overAll(rapidPaths, getRapid)},
      {"", "json_pointer", peer, usesATurn, overAll(nlohmannPaths, getNlohmann)},
      {"get, path text", "nestedObjectForKey", 150, usesATurn,
       overAll(used.keyPaths, [&](const std::string& path) { return !ours.nestedObjectForKey(path).isNull(); })},
      {"", "rapidjson::Pointer", peer, usesATurn,
       overAll(used.pointers,
               [&](const std::string& path) {
                 return getRapid({path.c_str(), path.size()});
               })},
      {"", "json_pointer", peer, usesATurn,
       overAll(used.pointers, [&](const std::string& path) { return getNlohmann(json::json_pointer(path)); })},
      {"set, prepared path", "KeyPath", 80, usesATurn, overAll(ourPaths, setOurs)},
      {"", "rapidjson::Pointer", peer, usesATurn, overAll(rapidPaths, setRapid)},
      {"", "json_pointer", peer, usesATurn, overAll(nlohmannPaths, setNlohmann)},
      {"set, path text", "setNestedObject", 200, usesATurn,
       overAll(used.keyPaths, [&](const std::string& path) { return ours.setNestedObject(value, path, true); })},
      {"", "rapidjson::Pointer", peer, usesATurn,
       overAll(used.pointers,
               [&](const std::string& path) {
                 return setRapid({path.c_str(), path.size()});
               })},
      {"", "json_pointer", peer, usesATurn,
       overAll(used.pointers, [&](const std::string& path) { return setNlohmann(json::json_pointer(path)); })},
      {"get, 10,000 prepared paths by turns", "KeyPath", 0, ourAll.size() * passesATurn, overAll(ourAll, getOurs)},
      {"", "rapidjson::Pointer", peer, rapidAll.size() * passesATurn, overAll(rapidAll, getRapid)},
      {"", "json_pointer", peer, nlohmannAll.size() * passesATurn, overAll(nlohmannAll, getNlohmann)},
      {"deep copy, a leaf", "deepMutableCopy", 0, 10'000, copyOurs, {}, dropOurs},
      {"", "rapidjson CopyFrom", peer, 10'000, copyRapid, {}, dropRapid},
      {"", "json copy", peer, 10'000, copyNlohmann, {}, dropNlohmann},
      {"the copy's release, a leaf", "deepMutableCopy", 0, 10'000, dropOurs, copyOurs},
      {"", "rapidjson CopyFrom", peer, 10'000, dropRapid, copyRapid},
      {"", "json copy", peer, 10'000, dropNlohmann, copyNlohmann},
  };
  measure(contenders);
  print(contenders);
}
