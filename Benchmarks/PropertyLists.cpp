// Property lists read and written beside libplist and pugixml. Prints Google Benchmark's lines, then a table of ratios
// of medians. Repetitions of all programs are interleaved at random, so that a busy machine slows all of them alike.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <plist/plist.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "Containers/PropertyList.h"
#include "PropertyListSamples.h"

namespace ostrel::benchmarks {
namespace {

struct Document {
  std::string name;
  std::string xml;
  std::string binary;
  PlistValue value;
  std::size_t batch = 1;  // calls a measurement, so that reading the clock does not count
};

std::vector<Document>& documents() {
  static std::vector<Document> all = [] {
    std::vector<Document> made;
    const auto add = [&made](std::string name, const PlistValue& built, std::size_t batch) {
      const std::string xml = *writeXmlPropertyList(built);
      // Everybody writes what it has itself read.
      made.push_back({std::move(name), xml, *writeBinaryPropertyList(built), readXmlPropertyList(xml), batch});
    };
    add("listing", userListing(20000), 1);
    add("request", request(), 20);
    add("mixed", mixedDocument(), 1);
    return made;
  }();
  return all;
}

// The contestants: `call` is measured, `release` is not.

struct OurXmlReader {
  explicit OurXmlReader(const Document& document) : bytes(document.xml) {}
  using Result = PlistValue;
  Result call() { return readPropertyList(bytes); }
  std::string_view bytes;
};

struct OurBinaryReader {
  explicit OurBinaryReader(const Document& document) : bytes(document.binary) {}
  using Result = PlistValue;
  Result call() { return readPropertyList(bytes); }
  std::string_view bytes;
};

struct OurXmlWriter {
  explicit OurXmlWriter(const Document& document) : value(document.value) {}
  using Result = std::string;
  Result call() { return *writeXmlPropertyList(value); }
  PlistValue value;
};

struct OurBinaryWriter {
  explicit OurBinaryWriter(const Document& document) : value(document.value) {}
  using Result = std::string;
  Result call() { return *writeBinaryPropertyList(value); }
  PlistValue value;
};

struct LibplistTree {
  LibplistTree() = default;
  explicit LibplistTree(std::string_view xml) {
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
  }
  LibplistTree(LibplistTree&& other) noexcept : root(std::exchange(other.root, nullptr)) {}
  ~LibplistTree() { plist_free(root); }
  plist_t root = nullptr;
};

struct LibplistReader {
  explicit LibplistReader(const Document& document) : bytes(document.xml) {}
  using Result = LibplistTree;
  Result call() { return LibplistTree(bytes); }
  std::string_view bytes;
};

struct LibplistText {
  LibplistText() = default;
  LibplistText(LibplistText&& other) noexcept : text(std::exchange(other.text, nullptr)) {}
  ~LibplistText() { plist_to_xml_free(text); }
  char* text = nullptr;
};

struct LibplistWriter {
  explicit LibplistWriter(const Document& document) : tree(document.xml) {}
  using Result = LibplistText;
  Result call() {
    Result written;
    std::uint32_t length = 0;
    plist_to_xml(tree.root, &written.text, &length);
    return written;
  }
  LibplistTree tree;
};

struct PugiReader {
  explicit PugiReader(const Document& document) : bytes(document.xml) {}
  using Result = std::unique_ptr<pugi::xml_document>;
  Result call() {
    auto tree = std::make_unique<pugi::xml_document>();
    tree->load_buffer(bytes.data(), bytes.size());
    return tree;
  }
  std::string_view bytes;
};

struct PugiWriter {
  explicit PugiWriter(const Document& document) { tree.load_buffer(document.xml.data(), document.xml.size()); }
  using Result = std::string;
  struct Output : pugi::xml_writer {
    void write(const void* bytes, std::size_t count) override { text.append(static_cast<const char*>(bytes), count); }
    std::string text;
  };
  Result call() {
    Output output;
    tree.save(output);
    return std::move(output.text);
  }
  pugi::xml_document tree;
};

template <class Contestant>
void measure(benchmark::State& state, const Document& document) {
  using Clock = std::chrono::steady_clock;
  Contestant contestant(document);
  std::vector<typename Contestant::Result> results;
  results.reserve(document.batch);
  for ([[maybe_unused]] auto step : state) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < document.batch; ++i) results.push_back(contestant.call());
    const std::chrono::duration<double> taken = Clock::now() - start;
    benchmark::DoNotOptimize(results.data());
    results.clear();
    state.SetIterationTime(taken.count());
  }
  const auto calls = static_cast<double>(state.iterations()) * static_cast<double>(document.batch);
  state.counters["MB/s"] =
      benchmark::Counter(calls * static_cast<double>(document.xml.size()) / 1e6, benchmark::Counter::kIsRate);
}

/// The same with the release of the results.
template <class Contestant>
void measureWhole(benchmark::State& state, const Document& document) {
  using Clock = std::chrono::steady_clock;
  Contestant contestant(document);
  for ([[maybe_unused]] auto step : state) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < document.batch; ++i) benchmark::DoNotOptimize(contestant.call());
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

// The table.

class MedianKeeper : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
        medians[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
  }
  std::map<std::string, double> medians;
};

struct Target {
  const char* what;
  const char* slower;
  const char* faster;
  double goal;
};

// Each line asks how many times as long the first takes as the second.
constexpr Target targets[] = {
    {"XML read, listing: libplist / ours", "read listing libplist", "read listing ours", 8},
    {"XML read, mixed: libplist / ours", "read mixed libplist", "read mixed ours", 6},
    {"XML read and release, request: pugixml / ours", "life request pugixml", "life request ours", 1},
    {"XML write, listing: libplist / ours", "write listing libplist", "write listing ours", 4},
    {"XML write, mixed: libplist / ours", "write mixed libplist", "write mixed ours", 4},
    {"XML write, request: pugixml / ours", "write request pugixml", "write request ours", 2},
    {"listing read: our XML / our binary", "read listing ours", "read listing ours binary", 3},
    {"listing write: our XML / our binary", "write listing ours", "write listing ours binary", 3},
    {"XML read, listing: pugixml / ours", "read listing pugixml", "read listing ours", 0},
    {"XML read, request: libplist / ours", "read request libplist", "read request ours", 0},
    {"XML read, mixed: pugixml / ours", "read mixed pugixml", "read mixed ours", 0},
    {"XML write, listing: pugixml / ours", "write listing pugixml", "write listing ours", 0},
    {"XML write, request: libplist / ours", "write request libplist", "write request ours", 0},
    {"XML read and release, listing: libplist / ours", "life listing libplist", "life listing ours", 0},
    {"XML read, request: pugixml / ours", "read request pugixml", "read request ours", 0},
    {"listing read and release: our XML / our binary", "life listing ours", "life listing ours binary", 0},
};

void printRatios(const std::map<std::string, double>& medians) {
  std::printf("\n| what | times as fast | goal |\n|---|---|---|\n");
  for (const Target& target : targets) {
    const auto slower = medians.find(target.slower);
    const auto faster = medians.find(target.faster);
    if (slower == medians.end() || faster == medians.end()) continue;
    std::printf("| %s | %.2f |", target.what, slower->second / faster->second);
    target.goal > 0 ? std::printf(" %g |\n", target.goal) : std::printf(" |\n");
  }
}

std::size_t heapInUse() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Bytes of all texts in a tree, keys included.
std::size_t textBytes(const PlistValue& value) {
  std::size_t bytes = value.stringValue().size();
  for (const PlistEntry& entry : value.entries()) bytes += entry.keyText().size() + textBytes(entry.value);
  for (const PlistValue& element : value.elements()) bytes += textBytes(element);
  return bytes;
}

void printHeap() {
  const Document& listing = documents().front();
  const auto size = static_cast<double>(listing.xml.size());
  std::size_t before = heapInUse();
  const PlistValue ours = readPropertyList(listing.xml);
  const auto ourHeap = static_cast<double>(heapInUse() - before);
  before = heapInUse();
  const LibplistTree theirs(listing.xml);
  const auto theirHeap = static_cast<double>(heapInUse() - before);
  const auto text = static_cast<double>(textBytes(ours));
  std::printf("\nlisting: %.1f MB of XML, %.1f MB of text in it, %.1f MB as binary\n", size / 1e6, text / 1e6,
              static_cast<double>(listing.binary.size()) / 1e6);
  std::printf("heap of the listing a byte of XML: ours %.2f, beyond its text %.2f (goal 1); libplist %.2f\n",
              ourHeap / size, std::max(0.0, ourHeap - text) / size, theirHeap / size);
  const Document& small = documents()[1];
  std::printf("request: %zu bytes of XML; mixed document: %zu\n", small.xml.size(), documents()[2].xml.size());
}

template <class Contestant>
void add(const std::string& name, const Document& document, bool whole = false) {
  auto* function = whole ? measureWhole<Contestant> : measure<Contestant>;
  benchmark::RegisterBenchmark(name.c_str(), [function, &document](benchmark::State& s) { function(s, document); })
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

void addAll() {
  for (const Document& document : documents()) {
    const std::string& name = document.name;
    add<OurXmlReader>("read " + name + " ours", document);
    add<LibplistReader>("read " + name + " libplist", document);
    add<PugiReader>("read " + name + " pugixml", document);
    add<OurXmlWriter>("write " + name + " ours", document);
    add<LibplistWriter>("write " + name + " libplist", document);
    add<PugiWriter>("write " + name + " pugixml", document);
    add<OurBinaryReader>("read " + name + " ours binary", document);
    add<OurBinaryWriter>("write " + name + " ours binary", document);
    add<OurXmlReader>("life " + name + " ours", document, true);
    add<OurBinaryReader>("life " + name + " ours binary", document, true);
    add<LibplistReader>("life " + name + " libplist", document, true);
    add<PugiReader>("life " + name + " pugixml", document, true);
  }
}

}  // namespace
}  // namespace ostrel::benchmarks

int main(int argc, char** argv) {
  // What is given on the command line comes later and wins.
  std::vector<std::string> arguments = {argv[0], "--benchmark_enable_random_interleaving=true",
                                        "--benchmark_repetitions=15", "--benchmark_min_time=0.05",
                                        "--benchmark_report_aggregates_only=true"};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return 1;

  ostrel::benchmarks::printHeap();
  ostrel::benchmarks::addAll();
  ostrel::benchmarks::MedianKeeper reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  ostrel::benchmarks::printRatios(reporter.medians);
  return 0;
}
