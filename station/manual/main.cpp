// Writes the man page and the completion scripts of media-station from its option definitions, when
// the program is built.
// Usage: media-station-manual FRAME FOLDER

#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/CommandLine.h"
#include "manual/Completion.h"
#include "manual/Definitions.h"
#include "manual/ManPage.h"

namespace {

std::string readFile(const std::string& path) {
  std::ifstream stream(path);
  if (!stream) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream stream(path);
  stream << text;
  if (!stream.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "Usage: media-station-manual FRAME FOLDER\n");
    return 2;
  }
  try {
    using namespace station::manual;
    const station::CommandLine line;
    const Node program = readDefinitions(*line.app);
    const std::string folder = argv[2];
    writeFile(folder + "/media-station.1", manPage(program, readFile(argv[1])));
    writeFile(folder + "/media-station.bash", bashCompletion(program));
    writeFile(folder + "/media-station.zsh", zshCompletion(program));
    writeFile(folder + "/media-station.fish", fishCompletion(program));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "media-station-manual: %s\n", error.what());
    return 1;
  }
  return 0;
}
