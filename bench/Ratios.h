#pragma once

#include <vector>

constexpr double kNoAim = 0;  // a peer that is only looked at

// A benchmark beside its peer or limit: the ratio of their medians, and what it should not exceed.
struct Ratio {
  const char* title;
  const char* subject;
  const char* peer;
  double aim;
};

// The value below which the given share of them lies; sorts them.
double quantile(std::vector<double>& values, double share);

// The body of a benchmark's main(): runs subjects and peers in turn, in one process, and prints the
// ratios last. With --ratios=FILE it also appends them to that file. Returns the exit code.
int runAndCompare(int argc, char** argv, const std::vector<Ratio>& ratios);
