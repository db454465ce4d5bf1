#pragma once

#include <string>

#include "base/Command.h"
#include "record/AudioReceiver.h"
#include "record/AudioTrack.h"
#include "record/Microphone.h"

namespace station {

struct AudioOptions {
  std::string file;           // with Opus packets to receive; empty for none
  MicrophoneName microphone;  // or of this
  bool silence = false;       // a track of fallback frames alone
  AudioReceiver::Settings reception;
  AudioTrack::Settings track;

  bool isWanted() const { return silence || !file.empty() || !microphone.element.empty(); }
  void addTo(CLI::App& command);
};

}  // namespace station
