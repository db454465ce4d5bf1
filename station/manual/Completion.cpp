#include "manual/Completion.h"

#include <algorithm>

namespace station::manual {
namespace {

constexpr const char* kMadeFrom = " for media-station, made from its option definitions.\n";

// What a shell shows beside a word.
std::string summary(const std::string& description) {
  return description.substr(0, description.find(". "));
}

std::string quote(const std::string& text) {
  std::string quoted = "'";
  for (const char character : text) {
    quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
  }
  return quoted + "'";
}

bool takesFile(const Node& node) {
  return std::any_of(node.options.begin(), node.options.end(), [](const Option& option) {
    return option.isPositional() && option.value.kind == Value::Kind::File;
  });
}

// bash: two functions of nested cases, what may stand at a place and what may follow an option.

std::string bashPath(const Node& node) {
  return quote(join(node.path, " "));
}

std::string bashCommandCases(const Node& node) {
  std::string cases;
  for (const Node& command : node.commands) {
    cases += "      " + bashPath(command) + ") path=$next ;;\n" + bashCommandCases(command);
  }
  return cases;
}

std::string bashValueCase(const Option& option) {
  std::string action = "return";
  if (!option.value.words.empty()) {
    action = "kind=words words=" + quote(join(option.value.words, " "));
  } else if (option.value.kind == Value::Kind::File) {
    action = "kind=file";
  } else if (option.value.kind == Value::Kind::Folder) {
    action = "kind=directory";
  }
  return "        " + join(option.names, " | ") + ") " + action + " ;;\n";
}

std::string bashNodeCases(const Node& node) {
  std::vector<std::string> words;
  std::string values;
  for (const Node& command : node.commands) {
    words.push_back(command.path.back());
  }
  for (const Option& option : node.options) {
    words.insert(words.end(), option.names.begin(), option.names.end());
    if (!option.isPositional() && option.value.kind != Value::Kind::None) {
      values += bashValueCase(option);
    }
  }
  std::string cases = "    " + bashPath(node) + ")\n      words=" + quote(join(words, " ")) + "\n";
  if (takesFile(node)) {
    cases += "      [[ $cur == -* ]] || kind=file\n";
  }
  if (!values.empty()) {
    cases += "      case $prev in\n" + values + "      esac\n";
  }
  cases += "      ;;\n";
  for (const Node& command : node.commands) {
    cases += bashNodeCases(command);
  }
  return cases;
}

// zsh: one function for every node; a group's calls those below it.

std::string zshFunction(const Node& node) {
  return "_" + join(
                   [&node] {
                     std::vector<std::string> parts = {"media-station"};
                     parts.insert(parts.end(), node.path.begin(), node.path.end());
                     return parts;
                   }(),
                   "_");
}

std::string zshEscape(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    escaped += (std::string("[]:\\").find(character) != std::string::npos ? "\\" : "");
    escaped += character;
  }
  return escaped;
}

std::string zshAction(const Value& value) {
  if (!value.words.empty()) {
    return "(" + join(value.words, " ") + ")";
  }
  switch (value.kind) {
    case Value::Kind::File:
      return "_files";
    case Value::Kind::Folder:
      return "_files -/";
    default:
      return " ";
  }
}

std::string zshSpec(const Option& option) {
  const std::string description = "[" + zshEscape(summary(option.description)) + "]";
  const std::string value = ":" + zshEscape(option.value.name) + ":" + zshAction(option.value);
  if (option.isPositional()) {
    return quote(value);
  }
  const bool hasValue = option.value.kind != Value::Kind::None;
  std::string text = option.names.size() > 1 ? quote("(" + join(option.names, " ") + ")") : "";
  std::vector<std::string> names;
  for (const std::string& name : option.names) {
    const std::string attached = name.rfind("--", 0) == 0 ? "=" : "+";
    names.push_back(name + (hasValue ? attached : ""));
  }
  text += names.size() > 1 ? "{" + join(names, ",") + "}" : names.front();
  return text + quote(description + (hasValue ? value : ""));
}

std::string zshFunctions(const Node& node) {
  std::string text;
  for (const Node& command : node.commands) {
    text += zshFunctions(command);
  }
  text += zshFunction(node) + "() {\n";
  if (!node.commands.empty()) {
    text += "  local state line\n";
  }
  text += "  _arguments" + std::string(node.commands.empty() ? "" : " -C");
  for (const Option& option : node.options) {
    text += " \\\n    " + zshSpec(option);
  }
  if (node.commands.empty()) {
    return text + "\n}\n\n";
  }
  text +=
      " \\\n    ':command:->command' '*::arguments:->arguments'\n  case $state in\n    command)\n";
  text += "      local -a commands=(\n";
  for (const Node& command : node.commands) {
    text += "        " +
            quote(command.path.back() + ":" + zshEscape(summary(command.description))) + "\n";
  }
  text += "      )\n      _describe command commands\n      ;;\n    arguments)\n";
  text += "      case $words[1] in\n";
  for (const Node& command : node.commands) {
    text += "        " + command.path.back() + ") " + zshFunction(command) + " ;;\n";
  }
  return text + "      esac\n      ;;\n  esac\n}\n\n";
}

// fish: one line for every command and option, each under the condition of its place.

std::string fishCondition(const Node& node) {
  std::vector<std::string> conditions;
  for (const std::string& command : node.path) {
    conditions.push_back("__fish_seen_subcommand_from " + command);
  }
  if (!node.commands.empty()) {
    std::vector<std::string> below;
    for (const Node& command : node.commands) {
      below.push_back(command.path.back());
    }
    conditions.push_back("not __fish_seen_subcommand_from " + join(below, " "));
  }
  return quote(join(conditions, "; and "));
}

std::string fishValue(const Value& value) {
  if (!value.words.empty()) {
    return " -x -a " + quote(join(value.words, " "));
  }
  switch (value.kind) {
    case Value::Kind::None:
      return "";
    case Value::Kind::File:
      return " -r -F";
    case Value::Kind::Folder:
      return " -x -a '(__fish_complete_directories)'";
    default:
      return " -x";
  }
}

std::string fishLines(const Node& node) {
  const std::string begin = "complete -c media-station -n " + fishCondition(node);
  std::string text;
  for (const Node& command : node.commands) {
    text +=
        begin + " -a " + command.path.back() + " -d " + quote(summary(command.description)) + "\n";
  }
  for (const Option& option : node.options) {
    if (option.isPositional()) {
      continue;
    }
    text += begin;
    for (const std::string& name : option.names) {
      text += name.rfind("--", 0) == 0 ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    text += fishValue(option.value) + " -d " + quote(summary(option.description)) + "\n";
  }
  if (takesFile(node)) {
    text += begin + " -F\n";
  }
  for (const Node& command : node.commands) {
    text += fishLines(command);
  }
  return text;
}

}  // namespace

std::string bashCompletion(const Node& program) {
  return std::string("# bash completion") + kMadeFrom + R"(
_media_station() {
  local cur=${COMP_WORDS[COMP_CWORD]} path='' kind=words words='' prev next i
  for ((i = 1; i < COMP_CWORD; i++)); do
    next="${path:+$path }${COMP_WORDS[i]}"
    case $next in
)" + bashCommandCases(program) +
         R"(    esac
  done

  # bash makes "--option=value" three words.
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  if [[ $cur == = ]]; then
    cur=''
  elif [[ $prev == = ]]; then
    prev=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  COMPREPLY=()
  case $path in
)" + bashNodeCases(program) +
         R"(  esac
  if [[ $kind == words ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
  else
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -A "$kind" -- "$cur")
  fi
} && complete -F _media_station media-station
)";
}

std::string zshCompletion(const Node& program) {
  return std::string("#compdef media-station\n# zsh completion") + kMadeFrom + "\n" +
         zshFunctions(program) + zshFunction(program) + " \"$@\"\n";
}

std::string fishCompletion(const Node& program) {
  return std::string("# fish completion") + kMadeFrom + "\ncomplete -c media-station -f\n" +
         fishLines(program);
}

}  // namespace station::manual
