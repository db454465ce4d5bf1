#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace station {

// What the board is, as far as it says so itself. Unknown texts are empty.
struct Machine {
  std::string model;    // of the device tree
  std::string release;  // of the board maker's software, or the distribution
  std::string kernel;
  std::optional<std::uint64_t> contiguousKb;      // contiguous memory in all; empty: the kernel has
  std::optional<std::uint64_t> contiguousFreeKb;  // none
};

Machine describeMachine();

}  // namespace station
