#pragma once

#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): the name is CLI11's
class App;
}

namespace station::manual {

// The program's option definitions, flattened for writers of text.

struct Value {
  enum class Kind { None, Text, File, Folder };
  Kind kind = Kind::None;
  std::string name;                // what stands for it in a synopsis
  std::vector<std::string> words;  // that completion offers
  std::string limits;              // such as "1 to 240"; may be empty
};

struct Option {
  std::vector<std::string> names;  // with dashes, short ones first; empty for a positional argument
  std::string description;
  Value value;
  std::string byDefault;              // may be empty
  std::vector<std::string> needs;     // names
  std::vector<std::string> excludes;  // names
  bool required = false;

  bool isPositional() const { return names.empty(); }
};

// A command, or a group of them.
struct Node {
  std::vector<std::string> path;  // empty for the program itself
  std::string description;
  std::vector<Option> options;
  std::vector<Node> commands;  // empty for a command that can be run
};

Node readDefinitions(const CLI::App& app);

// The commands that can be run, in the order of their definition.
std::vector<const Node*> leaves(const Node& node);

std::string join(const std::vector<std::string>& parts, const std::string& separator);

}  // namespace station::manual
