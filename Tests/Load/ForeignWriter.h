// Writers beside the daemon, killed at any moment, one after another.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "Load/Ledger.h"

namespace ostrel::load {

/// Runs load_writer on one module again and again, kills each with SIGKILL, and checks what it left: the last number
/// that it acknowledged, or the next one, whole.
///
/// The module is the writers' own: the daemon only reads it. Its host trusts its cache within a second of its own last
/// use, so on a module that both write, the daemon may rightly replace what another process wrote in that second.
class ForeignWriter {
 public:
  /// Requires: `setHostRoot(root)`. Writes once before it returns.
  ForeignWriter(std::string root, std::string module, Ledger& ledger);
  ~ForeignWriter() { stop(); }
  ForeignWriter(const ForeignWriter&) = delete;
  ForeignWriter& operator=(const ForeignWriter&) = delete;

  void start();
  void stop();
  /// One more number, written in a second in which nobody else has, and its value.
  std::int64_t writeLast();

  const std::string& module() const { return module_; }
  int kills() const { return kills_; }
  std::int64_t number() const { return number_; }
  /// Checks the file itself.
  void check(std::int64_t atLeast, std::int64_t atMost);

 private:
  void runAndKill(unsigned moment);
  bool writeOne();
  std::string output() const { return root_ + "/" + module_ + ".acknowledged"; }

  const std::string root_;
  const std::string module_;
  Ledger& ledger_;
  std::atomic<int> kills_{0};
  std::atomic<std::int64_t> number_{0};
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

}  // namespace ostrel::load
