#include "manual/Definitions.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <sstream>
#include <utility>

#include <CLI/CLI.hpp>

namespace station::manual {
namespace {

// The type as it was named, and what the checks say about themselves. CLI11 has them in one text
// only: the type, then ":" and a description for every check.
std::pair<std::string, std::vector<std::string>> typeAndChecks(const CLI::Option& option) {
  // The readers of checks are not const in this release.
  auto& mutableOption = const_cast<CLI::Option&>(option);  // NOLINT(*-const-cast)
  std::string type = option.get_type_name();
  std::vector<std::string> checks;
  try {
    for (int i = 0;; ++i) {
      const std::string check = mutableOption.get_validator(i)->get_description();
      if (!check.empty()) {
        checks.push_back(check);
        type.resize(type.size() - check.size() - 1);
      }
    }
  } catch (const CLI::OptionNotFound&) {  // behind the last one
  }
  return {type, checks};
}

std::vector<std::string> wordsInBraces(const std::string& text) {
  if (text.size() < 2 || text.front() != '{' || text.back() != '}') {
    return {};
  }
  std::istringstream words(text.substr(1, text.size() - 2));
  std::vector<std::string> found;
  for (std::string word; std::getline(words, word, ',');) {
    found.push_back(word);
  }
  return found;
}

Value readValue(const CLI::Option& option) {
  Value value;
  if (option.get_items_expected_min() == 0) {  // a flag
    return value;
  }
  const auto [type, checks] = typeAndChecks(option);
  value.kind = type == "FILE"     ? Value::Kind::File
               : type == "FOLDER" ? Value::Kind::Folder
                                  : Value::Kind::Text;
  static const std::regex kRange(R"(\w+ in \[(.+) - (.+)\])");
  value.words = wordsInBraces(type);
  for (const std::string& check : checks) {
    std::smatch range;
    if (std::regex_match(check, range, kRange)) {
      value.limits = range[1].str() + " to " + range[2].str();
    } else if (value.words.empty()) {
      value.words = wordsInBraces(check);
    }
  }
  const bool isNumber = type == "UINT" || type == "INT" || type == "FLOAT";
  if (isNumber) {
    value.name = "N";
  } else if (!value.words.empty()) {
    value.name = option.get_single_name();
    std::transform(value.name.begin(), value.name.end(), value.name.begin(),
                   [](unsigned char letter) { return std::toupper(letter); });
  } else {
    value.name = type;
  }
  return value;
}

std::vector<std::string> sortedNames(const std::set<CLI::Option*>& options) {
  std::vector<std::string> names;
  names.reserve(options.size());
  for (const CLI::Option* option : options) {
    names.push_back(option->get_name());
  }
  std::sort(names.begin(), names.end());
  return names;
}

Option readOption(const CLI::Option& definition) {
  Option option;
  for (const std::string& name : definition.get_snames()) {
    option.names.push_back("-" + name);
  }
  for (const std::string& name : definition.get_lnames()) {
    option.names.push_back("--" + name);
  }
  option.description = definition.get_description();
  option.value = readValue(definition);
  option.byDefault = definition.get_default_str();
  // A path is captured as a quoted text.
  option.byDefault.erase(std::remove(option.byDefault.begin(), option.byDefault.end(), '"'),
                         option.byDefault.end());
  option.needs = sortedNames(definition.get_needs());
  option.excludes = sortedNames(definition.get_excludes());
  option.required = definition.get_required();
  return option;
}

Node readNode(const CLI::App& app, const std::vector<std::string>& path) {
  Node node;
  node.path = path;
  node.description = app.get_description();
  // What is in no group is hidden from the help, and so from here.
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_group().empty()) {
      node.options.push_back(readOption(*option));
    }
  }
  std::stable_partition(node.options.begin(), node.options.end(),
                        [](const Option& option) { return option.isPositional(); });
  for (const CLI::App* command :
       app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
    std::vector<std::string> below = path;
    below.push_back(command->get_name());
    node.commands.push_back(readNode(*command, below));
  }
  return node;
}

}  // namespace

Node readDefinitions(const CLI::App& app) {
  return readNode(app, {});
}

std::vector<const Node*> leaves(const Node& node) {
  if (node.commands.empty()) {
    return {&node};
  }
  std::vector<const Node*> found;
  for (const Node& command : node.commands) {
    const std::vector<const Node*> below = leaves(command);
    found.insert(found.end(), below.begin(), below.end());
  }
  return found;
}

std::string join(const std::vector<std::string>& parts, const std::string& separator) {
  std::string joined;
  for (const std::string& part : parts) {
    joined += (&part == &parts.front() ? "" : separator) + part;
  }
  return joined;
}

}  // namespace station::manual
