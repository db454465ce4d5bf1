#pragma once

#include <filesystem>
#include <new>
#include <string>

#include "base/StationError.h"

namespace station {

// Calls what opens or reads `source`: no memory for its pictures and a path that cannot be looked
// up are failures of the source. Throws StationError.
template <typename Call>
auto callSource(const std::string& source, const Call& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    throw StationError(ExitCode::Source, "source failed: not enough memory: " + source);
  } catch (const std::filesystem::filesystem_error& error) {
    throw StationError(ExitCode::Source,
                       "source failed: " + error.code().message() + ": " + source);
  }
}

}  // namespace station
