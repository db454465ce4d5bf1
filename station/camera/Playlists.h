#pragma once

#include <string>

namespace station {

// Keeps the process from playing playlists, which read the files and addresses that they name.
// Throws StationError (Source) if the file `path` is one, by its media type, which may be empty.
void refusePlaylists(const std::string& path, const std::string& type);

}  // namespace station
