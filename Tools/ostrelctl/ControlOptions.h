// The command line of the client.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ostrel {

enum class OutputForm { text, xml, json, raw };

struct ControlOptions {
  std::string module;
  std::string command;
  std::vector<std::string> words;  ///< the request's other members
  std::string host;                ///< "": what the daemon on this machine left, else "localhost"
  std::string port;                ///< "": likewise, else "311"
  std::string root;
  std::string sessionFile;
  std::string user;
  std::string passwordFile;
  bool verifyCertificate = false;
  bool insecure = false;
  double timeout = 0;  ///< seconds; 0: none
  OutputForm form = OutputForm::text;
};

/// Reads the command line. When the program is to end at once (a help text, a wrong option), the result is absent, the
/// text has been printed and `exitStatus` says how.
std::optional<ControlOptions> readControlOptions(int argc, const char* const* argv, int& exitStatus);

}  // namespace ostrel
