#pragma once

#include <filesystem>
#include <new>
#include <string>

#include "base/StationError.h"

namespace station {

// Calls a function that opens or reads `source`. Throws StationError (Source) for its
// std::bad_alloc and its errors of the file system.
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
