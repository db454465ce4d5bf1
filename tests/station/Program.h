#pragma once

#include <string>
#include <vector>

#include <gio/gio.h>

// What a finished program left behind; `exitCode` is -1 if a signal ended it.
struct Result {
  int exitCode;
  std::string out;
  std::string err;
};

// A running program with its output kept.
class Program {
 public:
  explicit Program(const std::vector<std::string>& arguments);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void signal(int number);
  Result wait();

 private:
  GSubprocess* process_;
};

Result run(const std::vector<std::string>& arguments);
// The program under test.
std::vector<std::string> station(std::vector<std::string> arguments);
