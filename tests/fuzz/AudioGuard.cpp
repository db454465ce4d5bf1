// Calls of AudioContinuityGuard in any order and with any arguments, against a model of its
// timeline, its watchdog and what Opus can hold.

#include <algorithm>
#include <chrono>
#include <deque>
#include <limits>
#include <optional>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <media_backend/AudioContinuityGuard.h>
#include <opus.h>

#include "Require.h"

namespace {

using media_backend::AudioContinuityGuard;
using media_backend::EncodedAudioFrame;
using Mode = AudioContinuityGuard::FallbackMode;
using TimePoint = AudioContinuityGuard::TimePoint;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
__extension__ using Wide = __int128;  // holds every sum of the rules below

constexpr std::uint64_t kMostFrames = 20;  // at once, since encoding takes its time
constexpr std::uint64_t kLongestFrameNs = 1'000'000'000;

struct Format {
  std::uint32_t rate = 48000;
  std::uint8_t channels = 1;
  std::uint64_t durationNs = 20'000'000;
};

int samplesOf(const Format& format) {
  return static_cast<int>(Wide{format.durationNs} * format.rate / 1'000'000'000);
}

// Opus has five rates, two layouts and nine lengths of a packet: 2.5, 5 and 10 ms, and 20 ms times
// 1 to 6.
bool opusHolds(const Format& format) {
  constexpr std::uint32_t kRates[] = {8000, 12000, 16000, 24000, 48000};
  if (std::find(std::begin(kRates), std::end(kRates), format.rate) == std::end(kRates) ||
      format.channels > 2 || format.durationNs > kLongestFrameNs) {
    return false;
  }
  constexpr int kLengths[] = {1, 2, 4, 8, 16, 24, 32, 40, 48};  // of 2.5 ms
  const int unit = static_cast<int>(format.rate / 400);
  return std::any_of(std::begin(kLengths), std::end(kLengths),
                     [&](int length) { return samplesOf(format) == length * unit; });
}

// What the guard is said to do. Times are nanoseconds since the clock's epoch.
struct Model {
  bool primed = false;
  Mode mode = Mode::Silence;
  Wide timeout = 40'000'000;
  Wide earliestReceived = 0;  // the guard takes prime()'s time itself, between these two
  Wide latestReceived = 0;
  bool expiredUntilReceived = false;
  std::uint64_t nextPts = 0;
  Format format;
  std::deque<EncodedAudioFrame> queue;

  // No answer where the time of prime() is not known well enough.
  std::optional<bool> expired(Wide now) const {
    if (expiredUntilReceived) {
      return true;
    }
    const bool first = now - earliestReceived > timeout;
    const bool last = now - latestReceived > timeout;
    return first == last ? std::optional<bool>(first) : std::nullopt;
  }
  std::optional<bool> mayFallBack(Wide now) const {
    return !primed || mode == Mode::Disabled ? std::optional<bool>(false) : expired(now);
  }
};

Wide count(TimePoint time) {
  return nanoseconds(time.time_since_epoch()).count();
}

class Run {
 public:
  Run(const std::uint8_t* bytes, std::size_t size) : data_(bytes, size) {}

  void all() {
    for (int calls = 0; calls < 60 && data_.remaining_bytes() > 0; ++calls) {
      one();
    }
  }

 private:
  void one() {
    switch (data_.ConsumeIntegralInRange(0, 9)) {
      case 0:
        prime();
        break;
      case 1:
        setMode();
        break;
      case 2:
        guard_.setFallbackBitrate(data_.ConsumeIntegral<int>());
        break;
      case 3:
        setTimeout();
        break;
      case 4:
      case 5:
        receive();
        break;
      case 6:
        drain();
        break;
      case 7:
        makeOne();
        break;
      case 8:
        makeUntil();
        break;
      default:
        reset();
        break;
    }
  }

  template <typename Integer>
  Integer usualOr(std::initializer_list<Integer> usual) {
    if (data_.ConsumeIntegral<std::uint8_t>() < 230) {
      return *(usual.begin() + data_.ConsumeIntegralInRange<std::size_t>(0, usual.size() - 1));
    }
    return data_.ConsumeIntegral<Integer>();
  }

  Format anyFormat() {
    Format format;
    format.rate = usualOr<std::uint32_t>({0, 48000, 48000, 16000, 8000, 24000, 44100});
    format.channels = usualOr<std::uint8_t>({0, 1, 2, 3});
    format.durationNs = usualOr<std::uint64_t>(
        {0, 2'500'000, 10'000'000, 20'000'000, 20'000'001, 40'000'000, 120'000'000, 1});
    return format;
  }

  // Mostly about when the watchdog runs out.
  TimePoint anyTime() {
    Wide time = data_.ConsumeIntegral<std::int64_t>();
    if (data_.ConsumeIntegral<std::uint8_t>() < 230) {
      time = model_.latestReceived + model_.timeout + data_.ConsumeIntegralInRange(-2, 2) +
             (data_.ConsumeBool() ? 10'000'000'000 : 0);
    }
    time = std::clamp<Wide>(time, std::numeric_limits<std::int64_t>::min(),
                            std::numeric_limits<std::int64_t>::max());
    return TimePoint(nanoseconds(static_cast<std::int64_t>(time)));
  }

  std::uint64_t anyPts() {
    return data_.ConsumeIntegral<std::uint8_t>() < 230
               ? model_.nextPts + static_cast<std::uint64_t>(
                                      data_.ConsumeIntegralInRange<std::int64_t>(-100, 100)) *
                                      1'000'000
               : data_.ConsumeIntegral<std::uint64_t>();
  }

  void prime() {
    const Format format = anyFormat();
    const Wide before = count(std::chrono::steady_clock::now());
    guard_.prime(format.rate, format.channels, format.durationNs);
    const Wide after = count(std::chrono::steady_clock::now());
    model_.format = {format.rate != 0 ? format.rate : 48000,
                     format.channels != 0 ? format.channels : std::uint8_t{1},
                     format.durationNs != 0 ? format.durationNs : 20'000'000};
    model_.primed = true;
    // A timeout that does not fit the clock counts as expired until a frame comes.
    model_.expiredUntilReceived = model_.timeout > std::numeric_limits<std::int64_t>::max();
    if (!model_.expiredUntilReceived) {
      model_.earliestReceived = before - model_.timeout - 1'000'000;
      model_.latestReceived = after - model_.timeout - 1'000'000;
    }
  }

  void setMode() {
    model_.mode = static_cast<Mode>(usualOr<std::int32_t>({0, 1, 1, 1, 2, 2}));
    guard_.setFallbackMode(model_.mode);
  }

  void setTimeout() {
    const auto timeout = usualOr<std::int64_t>({-1, 0, 1, 40, 1000});
    guard_.setWatchdogTimeout(milliseconds(timeout));
    model_.timeout = std::max<Wide>(timeout, 1) * 1'000'000;
  }

  void receive() {
    const Format format = anyFormat();
    EncodedAudioFrame frame;
    frame.sampleRate = format.rate;
    frame.channels = format.channels;
    frame.durationNs = format.durationNs;
    frame.ptsNs = anyPts();
    frame.payload =
        data_.ConsumeBytes<std::uint8_t>(data_.ConsumeIntegralInRange<std::size_t>(0, 4));
    const TimePoint now = anyTime();
    guard_.noteReceived(frame, now);

    model_.earliestReceived = model_.latestReceived = count(now);
    model_.expiredUntilReceived = false;
    model_.primed = true;
    model_.format.rate = format.rate != 0 ? format.rate : model_.format.rate;
    model_.format.channels = format.channels != 0 ? format.channels : model_.format.channels;
    model_.format.durationNs =
        format.durationNs != 0 ? format.durationNs : model_.format.durationNs;
    model_.nextPts = frame.ptsNs + model_.format.durationNs;
    model_.queue.push_back(std::move(frame));
  }

  void drain() {
    const std::deque<EncodedAudioFrame> frames = guard_.drainReceived();
    const auto isSame = [](const EncodedAudioFrame& a, const EncodedAudioFrame& b) {
      return a.payload == b.payload && a.ptsNs == b.ptsNs && a.durationNs == b.durationNs &&
             a.sampleRate == b.sampleRate && a.channels == b.channels;
    };
    require(
        std::equal(frames.begin(), frames.end(), model_.queue.begin(), model_.queue.end(), isSame),
        "frames come out as they went in");
    model_.queue.clear();
  }

  void makeOne() {
    const TimePoint now = anyTime();
    const std::optional<bool> may = model_.mayFallBack(count(now));
    if (!may) {
      return;
    }
    const auto frame = guard_.maybeMakeFallback(now);
    require(frame.has_value() == (*may && opusHolds(model_.format)),
            "a fallback frame when the watchdog has run out, and only then");
    if (frame) {
      const std::uint64_t pts =
          model_.nextPts != 0 ? model_.nextPts : static_cast<std::uint64_t>(count(now));
      take(*frame, pts);
    }
  }

  void makeUntil() {
    const std::uint64_t until = anyPts();
    const auto most = data_.ConsumeIntegralInRange<std::uint64_t>(0, kMostFrames);
    const TimePoint now = anyTime();
    const std::optional<bool> may = model_.mayFallBack(count(now));
    if (!may) {
      return;
    }
    const auto frames = guard_.makeFallbackUntil(until, most, now);
    if (!*may || until == 0 || most == 0) {
      require(frames.empty(), "no run without a reason");
      return;
    }
    // A track that is not known, or more than a frame past the target, starts there.
    if (model_.nextPts == 0 || Wide{model_.nextPts} > Wide{until} + model_.format.durationNs) {
      model_.nextPts = until;
    }
    const Wide missing = Wide{until} - model_.nextPts;
    const Wide wanted = missing < 0 ? 0 : missing / model_.format.durationNs + 1;
    const Wide expected = opusHolds(model_.format) ? std::min<Wide>(wanted, most) : 0;
    require(static_cast<Wide>(frames.size()) == expected, "a run up to the frame at the target");
    for (const EncodedAudioFrame& frame : frames) {
      take(frame, model_.nextPts);
    }
  }

  void take(const EncodedAudioFrame& frame, std::uint64_t pts) {
    const Format& format = model_.format;
    require(frame.ptsNs == pts, "fallback goes on where the track ended");
    require(frame.durationNs == format.durationNs && frame.sampleRate == format.rate &&
                frame.channels == format.channels,
            "fallback has the stream's format");
    require(!frame.payload.empty() && frame.payload.size() <= 4000,
            "a packet of at most 4000 bytes");
    require(opus_packet_get_nb_samples(frame.payload.data(),
                                       static_cast<opus_int32>(frame.payload.size()),
                                       static_cast<opus_int32>(format.rate)) == samplesOf(format),
            "a packet is as long as its frame says");
    model_.nextPts = pts + format.durationNs;
  }

  void reset() {
    guard_.reset();
    model_.primed = false;
    model_.nextPts = 0;
    model_.format = {};
    model_.queue.clear();
  }

  FuzzedDataProvider data_;
  AudioContinuityGuard guard_;
  Model model_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Run(bytes, size).all();
  return 0;
}
