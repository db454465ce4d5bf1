#pragma once

#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "base/Command.h"

namespace station {

// Options that several commands have. A value's type name shows what it takes: FILE, FOLDER, or the
// words in braces.

// --board, as openBoard() takes it.
void addBoardOption(CLI::App& command, std::string& board);

using Codecs = std::vector<media_backend::GstVideoBackend::Codec>;

Codecs allCodecs();

// --codec, one of `choices` by any name that the library knows for it.
void addCodecOption(CLI::App& command, media_backend::GstVideoBackend::Codec& codec,
                    const Codecs& choices, const char* help);

// Refuses "nan", which CLI::Range accepts: it is neither below nor above.
std::string refuseNan(const std::string& text);

}  // namespace station
