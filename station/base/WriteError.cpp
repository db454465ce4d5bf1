#include "base/WriteError.h"

#include <cerrno>

#include <glib.h>

namespace station {

bool isDiskFull(const std::string& message) {
  return g_str_has_suffix(message.c_str(), g_strerror(ENOSPC)) != FALSE ||
         g_str_has_suffix(message.c_str(), g_strerror(EDQUOT)) != FALSE;
}

StationError writeError(const std::string& what, const std::string& reason) {
  return {isDiskFull(reason) ? ExitCode::DiskFull : ExitCode::Output, what + ": " + reason};
}

}  // namespace station
