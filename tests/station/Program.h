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

  // Next line of its standard output, without the end of line; empty at its end.
  std::string readLine();
  // Reads standard error up to this line, or fails the test at its end.
  void awaitErrorLine(const std::string& line);
  void signal(int number);
  // Of its process, while it runs.
  std::string id() const { return g_subprocess_get_identifier(process_); }
  // The rest of its output.
  Result wait();

 private:
  GSubprocess* process_;
  GDataInputStream* out_;
  GDataInputStream* err_;
};

Result run(const std::vector<std::string>& arguments);
// Whether it is of a recording that has ended. It may lack frames, if it says so: encoders may be
// slow on a busy machine.
bool hasRecorded(const Result& result);
// The command that runs the program under test, through the emulator if it takes one; `more`
// follows the arguments.
std::vector<std::string> station(const std::vector<std::string>& arguments,
                                 const std::vector<std::string>& more = {});
