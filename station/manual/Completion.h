#pragma once

#include <string>

#include "manual/Definitions.h"

namespace station::manual {

// Scripts for the shells: commands, options, words that an option takes, files and folders.
std::string bashCompletion(const Node& program);
std::string zshCompletion(const Node& program);
std::string fishCompletion(const Node& program);

}  // namespace station::manual
