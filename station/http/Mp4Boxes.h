#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace station {

// Bytes of MP4 (ISO/IEC 14496-12) as GStreamer's mp4mux writes it.

constexpr std::size_t kMp4BoxHead = 8;  // size and type

std::uint32_t mp4NumberAt(const std::string& bytes, std::size_t offset);

// Whether a moof is of the first track, and its only sample refers to no other.
bool isKeyFragment(const std::string& moof);

// Workaround for mp4mux of GStreamer 1.22, not needed with 1.26: it writes Opus's sample rate
// little-endian, and browsers refuse the track.
void correctOpusRate(std::string& header);

// Workaround for mp4mux of GStreamer 1.22: it writes av1C as an early draft had it, and browsers
// show nothing. `config` is the content that the box should have.
void replaceAv1Config(std::string& header, const std::string& config);

}  // namespace station
