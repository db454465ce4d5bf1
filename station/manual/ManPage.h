#pragma once

#include <string>

#include "manual/Definitions.h"

namespace station::manual {

// The page in roff's man macros: `frame`, whose lines %SYNOPSIS%, %COMMANDS% and %EXIT_STATUS% give
// way to what the definitions say.
std::string manPage(const Node& program, const std::string& frame);

}  // namespace station::manual
