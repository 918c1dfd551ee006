// The options that every form of the command line takes: where the daemon is, as whom, and how to print.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace ostrel {

enum class OutputForm { text, xml, json, raw };

struct SharedOptions {
  std::string host;  ///< "": what the daemon on this machine left, else "localhost"
  std::string port;  ///< "": likewise, else "311"
  std::string root;
  std::string sessionFile;
  std::string user;
  std::string passwordFile;
  bool verifyCertificate = false;
  bool insecure = false;
  double timeout = 300;  ///< seconds; 0: none
  OutputForm form = OutputForm::text;
};

/// Declares the options on `app`, which fills `options` when it parses: `options` must outlive it.
void addSharedOptions(CLI::App& app, SharedOptions& options);

}  // namespace ostrel
