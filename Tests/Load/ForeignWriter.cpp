#include "Load/ForeignWriter.h"

#include <chrono>
#include <filesystem>
#include <random>

#include "Containers/Format.h"
#include "Load/WriterContext.h"
#include "PluginFramework/ContextStore.h"
#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel::load {
namespace {

using std::chrono::milliseconds;

/// The last whole line's number, or 0.
std::int64_t lastNumber(const std::string& file) {
  const std::string lines = testing::readFile(file);
  const std::size_t end = lines.rfind('\n');
  if (end == std::string::npos) return 0;
  const std::size_t begin = end == 0 ? std::string::npos : lines.rfind('\n', end - 1);
  return std::stoll(lines.substr(begin == std::string::npos ? 0 : begin + 1));
}

}  // namespace

ForeignWriter::ForeignWriter(std::string root, std::string module, Ledger& ledger)
    : root_(std::move(root)), module_(std::move(module)), ledger_(ledger) {
  writeOne();
}

void ForeignWriter::start() {
  thread_ = std::thread([this] {
    std::minstd_rand random(static_cast<unsigned>(std::hash<std::string>()(module_)));
    while (!ends_) runAndKill(static_cast<unsigned>(random()) % 60'000);
  });
}

void ForeignWriter::stop() {
  ends_ = true;
  if (thread_.joinable()) thread_.join();
}

void ForeignWriter::runAndKill(unsigned moment) {
  std::filesystem::remove(output());
  testing::ChildProcess writer({LOAD_WRITER_PROGRAM, root_, module_, std::to_string(number_ + 1)}, output(),
                               root_ + "/writer.errors");
  testing::eventually([&] { return lastNumber(output()) > number_ || writer.hasEnded(); });
  std::this_thread::sleep_for(std::chrono::microseconds(moment));
  writer.send(SIGKILL);
  if (writer.wait() != 128 + SIGKILL) return ledger_.violation("the writer of " + module_ + " ended by itself");
  ++kills_;
  const std::int64_t acknowledged = lastNumber(output());
  check(acknowledged, acknowledged + 1);
}

void ForeignWriter::check(std::int64_t atLeast, std::int64_t atMost) {
  int descriptor = -1;
  const PlistValue context = get_and_lock_context(module_, &descriptor);
  const std::int64_t found = writtenNumber(context);
  if (!isWhole(context)) ledger_.violation(module_ + " holds half a context");
  set_and_unlock_context(&descriptor, &context);
  if (found < atLeast || found > atMost)
    ledger_.violation(format("%s holds %lld, acknowledged was %lld", module_, static_cast<long long>(found),
                             static_cast<long long>(atLeast)));
  number_ = found;
}

bool ForeignWriter::writeOne() {
  const std::string next = std::to_string(number_ + 1);
  testing::ChildProcess writer({LOAD_WRITER_PROGRAM, root_, module_, next, next}, output(), root_ + "/writer.errors");
  if (writer.wait() != 0) {
    ledger_.violation("the writer of " + module_ + " failed");
    return false;
  }
  ++number_;
  return true;
}

std::int64_t ForeignWriter::writeLast() {
  // The daemon looks at whole seconds: what comes in a later one it must see.
  std::this_thread::sleep_for(milliseconds(1100));
  writeOne();
  return number_;
}

}  // namespace ostrel::load
