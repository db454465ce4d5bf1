#pragma once

#include <string>

#include "audio/AudioReceiver.h"
#include "audio/AudioTrack.h"
#include "audio/Microphone.h"
#include "base/Command.h"

namespace station {

struct AudioOptions {
  std::string file;           // with Opus packets to receive; empty for none
  MicrophoneName microphone;  // or of this
  bool silence = false;       // a track of fallback frames alone
  AudioReceiver::Settings reception;
  AudioTrack::Settings track;

  bool hasMicrophone() const { return !microphone.element.empty(); }
  bool isWanted() const { return silence || !file.empty() || hasMicrophone(); }
  void addTo(CLI::App& command);
};

}  // namespace station
