#include "manual/ManPage.h"

#include <map>
#include <sstream>

#include "cli/CommandLine.h"

namespace station::manual {
namespace {

// Text that roff takes literally, hyphens as the minus signs that one types.
std::string escape(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    if (character == '\\') {
      escaped += "\\e";
    } else if (character == '-') {
      escaped += "\\-";
    } else {
      escaped += character;
    }
  }
  const bool looksLikeRequest = !text.empty() && (text.front() == '.' || text.front() == '\'');
  return looksLikeRequest ? "\\&" + escaped : escaped;
}

std::string bold(const std::string& text) {
  return "\\fB" + escape(text) + "\\fR";
}

std::string italic(const std::string& text) {
  return "\\fI" + escape(text) + "\\fR";
}

// Such as "-o, --output FOLDER".
std::string heading(const Option& option, const std::vector<std::string>& names) {
  std::vector<std::string> bolds;
  bolds.reserve(names.size());
  for (const std::string& name : names) {
    bolds.push_back(bold(name));
  }
  std::string text = join(bolds, ", ");
  if (option.value.kind != Value::Kind::None) {
    text += (text.empty() ? "" : " ") + italic(option.value.name);
  }
  return text;
}

// Such as "2 to 8192, default 1280"; empty if there is nothing to say.
std::string terms(const Option& option) {
  std::vector<std::string> parts;
  if (!option.value.limits.empty()) {
    parts.push_back(escape(option.value.limits));
  }
  if (!option.byDefault.empty()) {
    parts.push_back("default " + escape(option.byDefault));
  }
  for (const std::string& name : option.needs) {
    parts.push_back("only with " + bold(name));
  }
  for (const std::string& name : option.excludes) {
    parts.push_back("not with " + bold(name));
  }
  return join(parts, ", ");
}

std::string describe(const Option& option) {
  const std::string parenthesis = terms(option);
  return ".TP\n" + heading(option, option.names) + "\n" + escape(option.description) +
         (parenthesis.empty() ? "" : " (" + parenthesis + ")") + ".\n";
}

std::string commandName(const Node& command) {
  return "media-station " + join(command.path, " ");
}

std::string synopsis(const Node& program) {
  std::string text;
  for (const Node* command : leaves(program)) {
    text += (text.empty() ? "" : ".br\n") + bold(commandName(*command)) + " [" + italic("OPTIONS") +
            "]";
    std::string positional;
    for (const Option& option : command->options) {
      if (option.isPositional()) {
        positional = " " + heading(option, {});
      } else if (option.required) {
        text += " " + heading(option, {option.names.front()});
      }
    }
    text += positional + "\n";
  }
  return text;
}

std::string commands(const Node& program) {
  std::string text;
  for (const Node* command : leaves(program)) {
    text += ".SS " + join(command->path, " ") + "\n" + escape(command->description) + ".\n";
    for (const Option& option : command->options) {
      text += describe(option);
    }
  }
  return text;
}

std::string exitStatus() {
  std::string text;
  for (const ExitCodeMeaning& meaning : exitCodes()) {
    text += ".TP\n" + bold(std::to_string(static_cast<int>(meaning.code))) + "\n" +
            escape(meaning.text) + "\n";
  }
  return text;
}

}  // namespace

std::string manPage(const Node& program, const std::string& frame) {
  const std::map<std::string, std::string> pieces = {{"%SYNOPSIS%", synopsis(program)},
                                                     {"%COMMANDS%", commands(program)},
                                                     {"%EXIT_STATUS%", exitStatus()}};
  std::istringstream lines(frame);
  std::string page;
  for (std::string line; std::getline(lines, line);) {
    const auto piece = pieces.find(line);
    page += piece != pieces.end() ? piece->second : line + "\n";
  }
  return page;
}

}  // namespace station::manual
