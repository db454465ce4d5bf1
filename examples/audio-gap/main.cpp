// A microphone on a network that breaks off for a while, and the track that the guard makes of it.
//
// Prints a line for every packet of the track: where it begins on the track, when it was handed
// over to the muxer, both in milliseconds, and whether it was received or is fallback. The clock is
// the program's own, so every run prints the same.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>

#include <media_backend/AudioContinuityGuard.h>

using media_backend::AudioContinuityGuard;
using media_backend::EncodedAudioFrame;
using std::chrono::milliseconds;

namespace {

constexpr int kPacket = 20;   // milliseconds, as all that follow
constexpr int kStart = 1000;  // 0 would mean "not known" to the guard
constexpr int kEnd = 1600;
constexpr int kNetworkDelay = 10;
constexpr int kBreakBegins = 1200;  // what is sent from here on is lost,
constexpr int kBreakEnds = 1400;    // and this packet arrives again
constexpr int kLag = 60;            // how far the muxer's audio stays behind

constexpr std::uint64_t kNoLimit = UINT64_MAX;
// A "now" at which the watchdog has run out: for a gap that is known and not only suspected.
constexpr auto kCertain = AudioContinuityGuard::TimePoint::max();

std::uint64_t nanoseconds(int time) {
  return static_cast<std::uint64_t>(time) * 1'000'000;
}

class Track {
 public:
  void receive(int pts, int now) {
    if (pts > end_) {  // a hole in front of it: fill it up to there
      handOver(guard_.drainReceived(), now, "received");
      handOver(guard_.makeFallbackUntil(nanoseconds(pts - kPacket), kNoLimit, kCertain), now,
               "fallback");
    }
    EncodedAudioFrame frame;
    frame.payload = {0xF8, 0xFF, 0xFE};  // an Opus packet of silence, 20 ms
    frame.ptsNs = nanoseconds(pts);
    frame.durationNs = nanoseconds(kPacket);
    guard_.noteReceived(frame, at(now));
  }

  // What a host does whenever it feeds its muxer.
  void feed(int now) {
    handOver(guard_.drainReceived(), now, "received");
    handOver(guard_.makeFallbackUntil(nanoseconds(now - kLag), kNoLimit, at(now)), now, "fallback");
  }

 private:
  static AudioContinuityGuard::TimePoint at(int now) {
    return AudioContinuityGuard::TimePoint(milliseconds(now));
  }

  void handOver(const std::deque<EncodedAudioFrame>& frames, int now, const char* kind) {
    for (const EncodedAudioFrame& frame : frames) {
      const int pts = static_cast<int>(frame.ptsNs / 1'000'000);
      std::printf("%9d  %14d  %s\n", pts, now, kind);
      end_ = pts + kPacket;
    }
  }

  AudioContinuityGuard guard_;  // watchdog of 40 ms, silence
  int end_ = kStart;
};

}  // namespace

int main() {
  std::printf("begins ms  handed over ms  kind\n");
  Track track;
  for (int now = kStart; now < kEnd; now += 10) {
    const int sent = now - kNetworkDelay;
    const bool lost = sent >= kBreakBegins && sent < kBreakEnds;
    if (sent >= kStart && sent % kPacket == 0 && !lost) {
      track.receive(sent, now);
    }
    track.feed(now);
  }
  return 0;
}
