#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "audio/AudioOptions.h"
#include "audio/MicrophoneTrack.h"
#include "audio/SharedMicrophone.h"
#include "record/Recorder.h"

namespace station {

// The audio of a recording: the track and its receiver. Does nothing for a recording without audio.
class AudioFeed {
 public:
  // Reads the file or opens the microphone, which outlives this object; throws StationError
  // (Source).
  AudioFeed(const AudioOptions& options, SharedMicrophone& microphone);

  bool isWanted() const { return track_.has_value(); }
  // Begins anew, for another recording. A microphone that does not open any more leaves its track
  // to fallback audio. Throws StationError (Source) for a file.
  void reopen();
  void start(std::chrono::steady_clock::time_point time);
  // Pushes what the track has up to the end of the video so far.
  void push(Recorder& recorder, std::chrono::nanoseconds videoEnd);
  void finish(Recorder& recorder, std::chrono::nanoseconds end);
  void printSummary() const;

 private:
  void open();
  AudioTrack::Statistics statistics() const;
  void pushBefore(Recorder& recorder, std::chrono::nanoseconds end, AudioTrack::Frames frames);

  const AudioOptions options_;
  SharedMicrophone& microphone_;
  std::vector<OpusPacket> packets_;
  std::optional<AudioTrack> track_;
  std::optional<AudioReceiver> receiver_;
  std::optional<MicrophoneTrack> microphoneTrack_;
  AudioTrack::Statistics earlier_{};  // of earlier recordings
  AudioTrack::Frames early_;          // ahead of the video; after finish(): not recorded
};

}  // namespace station
