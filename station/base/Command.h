#pragma once

namespace CLI {  // NOLINT(readability-identifier-naming): the name is CLI11's
class App;
}

namespace station {

// A command of the program: its options, and what it does with them.
class Command {
 public:
  Command() = default;
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Adds the command to the program's and its options to the command. Returns the command, which
  // keeps references to this object.
  virtual CLI::App& addOptions(CLI::App& program) = 0;

  // Runs the command, after its options have been parsed and GStreamer initialised. Throws
  // StationError.
  virtual void run() = 0;
};

}  // namespace station
