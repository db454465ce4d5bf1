#pragma once

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

// What scripts/torture asks of a GoogleTest program through the environment, and what it gets back.
// Without it a program runs its short form.

inline unsigned long tortureNumber(const char* variable, unsigned long otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? std::stoul(text) : otherwise;
}

// How much longer than the short form.
inline unsigned long tortureScale() {
  return tortureNumber("TORTURE_SCALE", 1);
}

inline unsigned long tortureSeed() {
  return tortureNumber("TORTURE_SEED", 1);
}

// A row of the table; `seed` empty for what has no chance in it.
inline void tortureRow(const std::string& fault, unsigned long times, const std::string& seed,
                       const std::string& lost) {
  const std::string row =
      "| " + fault + " | " + std::to_string(times) + " | " + seed + " | " + lost + " |\n";
  const char* const table = std::getenv("TORTURE_TABLE");
  if (table != nullptr) {
    std::ofstream(table, std::ios::app) << row;
  } else {
    std::cout << row;
  }
}
