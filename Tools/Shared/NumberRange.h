// A check of numbers on command lines.
#pragma once

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>

namespace ostrel {

/// Takes the numbers from `low` to `high`. CLI::Range takes "nan" as well, which no integer can hold.
inline CLI::Validator numberRange(double low, double high) {
  std::ostringstream range;
  range << "in [" << low << " - " << high << "]";
  const auto fault = [low, high, shown = range.str()](const std::string& text) {
    double number = 0;
    const bool fits = CLI::detail::lexical_cast(text, number) && number >= low && number <= high;
    return fits ? std::string() : "Value " + text + " not " + shown;
  };
  return {fault, range.str().substr(3)};
}

}  // namespace ostrel
