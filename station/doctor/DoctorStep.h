#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "doctor/DoctorSteps.h"

namespace station {

// What came of a step.
// NOLINTNEXTLINE(bugprone-exception-escape): the JSON's own destructor allocates
struct StepResult {
  bool ok = false;
  std::string error;              // why not, in one line
  std::vector<std::string> said;  // last lines that drivers and GStreamer wrote, if it failed
  nlohmann::ordered_json value;
};

// Runs steps in child processes, for neither a crash nor a driver that hangs to reach the caller.
class StepRunner {
 public:
  StepRunner(std::string board, std::chrono::seconds limit)
      : board_(std::move(board)), limit_(limit) {}

  StepResult run(const char* step, const std::string& argument) const;

 private:
  const std::string board_;
  const std::chrono::seconds limit_;
};

}  // namespace station
