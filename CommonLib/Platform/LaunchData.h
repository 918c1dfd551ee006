// Values of the service launcher's messages.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ostrel {

/// What a service launcher is asked with and answers. A plain value: copies share nothing.
struct LaunchData {
  struct Member;
  struct DescriptorNumber {
    std::int32_t number = -1;
  };
  struct Opaque {
    std::string bytes;
  };
  struct ErrorNumber {
    std::int32_t number = 0;
  };
  struct Port {
    std::uint32_t number = 0;
  };
  using Dictionary = std::vector<Member>;  ///< keys in order; of two equal ones the later counts
  using Array = std::vector<LaunchData>;

  /// `std::monostate` stands for whatever has no kind here. A string should be UTF-8.
  std::variant<std::monostate, Dictionary, Array, DescriptorNumber, std::int64_t, double, bool, std::string, Opaque,
               ErrorNumber, Port>
      value;
};

struct LaunchData::Member {
  std::string key;
  LaunchData value;
};

}  // namespace ostrel
