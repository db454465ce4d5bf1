#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "doctor/DoctorCheck.h"

namespace station {

// NOLINTNEXTLINE(bugprone-exception-escape): the JSON's own destructor allocates
struct CheckResult {
  bool ok = false;
  std::string error;             // in one line
  std::vector<std::string> log;  // last lines of drivers and GStreamer, if it failed
  nlohmann::ordered_json value;
};

// Runs checks in child processes, which isolates the caller from crashes and drivers that hang.
class CheckRunner {
 public:
  CheckRunner(std::string board, std::chrono::seconds limit)
      : board_(std::move(board)), limit_(limit) {}

  CheckResult run(Check check, const std::string& argument) const;

 private:
  const std::string board_;
  const std::chrono::seconds limit_;
};

}  // namespace station
