// ostrelctl MODULE COMMAND [ARGUMENT...]: one command for one module.
#pragma once

#include <string>
#include <vector>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

class ModuleCommand : public Subcommand {
 public:
  void declare(CLI::App& app) override;
  int run(const SharedOptions& shared) override;

 private:
  std::string module_;
  std::string command_;
  std::vector<std::string> words_;  // the request's other members
};

}  // namespace ostrel
