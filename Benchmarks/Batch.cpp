// A batch of sixteen commands to sixteen modules beside the slowest of them alone.
#include <algorithm>
#include <filesystem>
#include <vector>

#include "ContextHost.h"
#include "Platform/Clock.h"

namespace {

using ostrel::BundleManager;
using ostrel::PlistValue;
using namespace ostrel::benchmarks;

constexpr int modules = 16;
const PlistValue slow = PlistValue::dictionaryOf({{"command", "slow"}, {"key", "none"}});  // takes 20 ms

std::string moduleName(int number) { return "load" + std::to_string(number); }

/// A host folder with sixteen copies of a module.
class Modules {
 public:
  Modules() {
    const std::string bundles = folder_.path() + "/usr/share/ostreld/bundles/";
    std::filesystem::create_directories(bundles);
    for (int i = 0; i < modules; ++i) std::filesystem::copy_file(LOAD_BUNDLE, bundles + moduleName(i) + ".bundle");
  }

 private:
  HostFolder folder_;
};

PlistValue batchOfAll() {
  PlistValue requests = PlistValue::mutableArray();
  for (int i = 0; i < modules; ++i)
    requests.append(PlistValue::dictionaryOf({{"name", moduleName(i)}, {"request", slow}}));
  return PlistValue::dictionaryOf({{"requestsArray", requests}});
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void batchBesideItsSlowest(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::duration<double, std::milli>;
  const Modules folder;
  BundleManager manager;
  const PlistValue batch = batchOfAll();
  std::vector<double> aloneTimes;
  std::vector<double> batchTimes;
  for (auto _ : state) {
    const auto start = Clock::now();
    check(manager.doCommand(slow, "load0", "benchmark").contains("number"));
    const auto between = Clock::now();
    const PlistValue answer = manager.doBatchCommand(batch, "benchmark");
    batchTimes.push_back(Milliseconds(Clock::now() - between).count());
    aloneTimes.push_back(Milliseconds(between - start).count());
    const PlistValue responses = answer.get("responsesArray");
    check(responses.count() == modules && std::ranges::all_of(responses.elements(), [](const PlistValue& element) {
            return element.get("response").contains("number");
          }));
  }
  state.counters["alone_ms"] = median(aloneTimes);
  state.counters["batch_ms"] = median(batchTimes);
  state.counters["more_ms"] = median(batchTimes) - median(aloneTimes);
}
BENCHMARK(batchBesideItsSlowest)->Iterations(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
