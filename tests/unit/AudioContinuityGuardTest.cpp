// The guard over the real codec. This program's own definitions of the encoding function and of
// operator new record what passes through them; the first fails on command.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <new>
#include <numeric>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <media_backend/AudioContinuityGuard.h>
#include <opus.h>
#include <pthread.h>

#include "support/Interpose.h"

namespace {

constexpr int kNever = std::numeric_limits<int>::max();
int g_encodingsToFault = kNever;
int g_channels = 1;  // how many of them `g_pcm` takes
std::vector<opus_int16> g_pcm;
opus_int32 g_bitrate = 0;
std::atomic<int> g_allocations = 0;
std::atomic<std::size_t> g_allocated = 0;  // bytes

}  // namespace

extern "C" opus_int32 opus_encode(OpusEncoder* encoder, const opus_int16* pcm, int samples,
                                  unsigned char* data, opus_int32 size) {
  static auto* const real = nextDefinition<decltype(opus_encode)>("opus_encode");
  if (g_encodingsToFault == 0) {
    return OPUS_INTERNAL_ERROR;
  }
  --g_encodingsToFault;
  opus_encoder_ctl(encoder, OPUS_GET_BITRATE(&g_bitrate));
  g_pcm.insert(g_pcm.end(), pcm, pcm + std::ptrdiff_t{samples} * g_channels);
  return real(encoder, pcm, samples, data, size);
}

#if !defined(__SANITIZE_THREAD__)  // which sees a missing lock itself, and needs to see them all
static thread_local int t_locks = 0;
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = nextDefinition<int(pthread_mutex_t*)>("pthread_mutex_lock");
  ++t_locks;
  return real(mutex);
}
#endif

// The next operator new is the standard one, which its own operator delete goes with.
// NOLINTNEXTLINE(misc-new-delete-overloads)
void* operator new(std::size_t size) {
  static auto* const real = nextDefinition<void*(std::size_t)>("_Znwm");
  g_allocated += size;
  ++g_allocations;
  return real(size);
}

namespace {

using namespace std::chrono_literals;
using media_backend::AudioContinuityGuard;
using media_backend::EncodedAudioFrame;
using std::chrono::milliseconds;
using Frames = std::deque<EncodedAudioFrame>;
using Mode = AudioContinuityGuard::FallbackMode;
using Pts = std::vector<std::uint64_t>;
using TimePoint = AudioContinuityGuard::TimePoint;

constexpr std::uint64_t kMs = 1'000'000;
constexpr std::uint64_t kSecond = 1000 * kMs;
constexpr milliseconds kLongestCounted{std::chrono::nanoseconds::max() / 1ms};

// Frames are received at kStart; kSilent is long after that, and after every prime().
const TimePoint kStart = std::chrono::steady_clock::now();
const TimePoint kSilent = kStart + 1h;

auto labelOf(const EncodedAudioFrame& frame) {
  return std::make_tuple(frame.ptsNs, frame.durationNs, frame.sampleRate, int{frame.channels});
}

auto nextLabel(AudioContinuityGuard& guard) {
  return labelOf(guard.maybeMakeFallback(kSilent).value_or(EncodedAudioFrame{}));
}

Pts ptsOf(const Frames& frames) {
  Pts pts;
  for (const EncodedAudioFrame& frame : frames) {
    pts.push_back(frame.ptsNs);
  }
  return pts;
}

std::size_t framesMade(AudioContinuityGuard& guard, TimePoint now) {
  const std::size_t one = guard.maybeMakeFallback(now) ? 1 : 0;
  return one + guard.makeFallbackUntil(2 * kSecond, 10, now).size();
}

TEST(AudioContinuityGuardTest, ContinuesTheTrackUpToATarget) {
  const struct {
    std::uint64_t nextNs;
    std::uint64_t untilNs;
    std::uint64_t maxFrames;
    Pts madeNs;
    std::uint64_t nextAfterNs;
  } rows[] = {
      {1000 * kMs, 1075 * kMs, 10, {1000 * kMs, 1020 * kMs, 1040 * kMs, 1060 * kMs}, 1080 * kMs},
      {1000 * kMs, 1075 * kMs, 2, {1000 * kMs, 1020 * kMs}, 1040 * kMs},
      {1000 * kMs, 1020 * kMs, 10, {1000 * kMs, 1020 * kMs}, 1040 * kMs},
      {1095 * kMs, 1075 * kMs, 10, {}, 1095 * kMs},
      {1095 * kMs + 1, 1075 * kMs, 10, {1075 * kMs}, 1095 * kMs},
      {1200 * kMs, 0, 10, {}, 1200 * kMs},
      {1200 * kMs, 1075 * kMs, 0, {}, 1200 * kMs},
      {~0ULL - 10 * kMs, ~0ULL, 10, {~0ULL - 10 * kMs}, 10 * kMs - 1},  // past the end of counting
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.nextNs << " to " << row.untilNs);
    AudioContinuityGuard guard;
    guard.noteReceived({{}, row.nextNs - 20 * kMs}, kStart);
    EXPECT_EQ(ptsOf(guard.makeFallbackUntil(row.untilNs, row.maxFrames, kSilent)), row.madeNs);
    EXPECT_EQ(nextLabel(guard), labelOf({{}, row.nextAfterNs}));
  }
}

TEST(AudioContinuityGuardTest, WaitsForTheWatchdogToTheNanosecond) {
  const struct {
    milliseconds timeout;
    TimePoint received;
    TimePoint lastQuiet;  // a nanosecond later frames are made, unless it is the end of time
  } rows[] = {
      {40ms, kStart, kStart + 40ms},
      {milliseconds::min(), kStart, kStart + 1ms},
      {kLongestCounted, TimePoint{}, TimePoint{} + kLongestCounted},
      {kLongestCounted, TimePoint::min(), TimePoint::min() + kLongestCounted},
      {kLongestCounted, kStart, TimePoint::max()},
      {kLongestCounted + 1ms, TimePoint{}, TimePoint::max()},
      {milliseconds::max(), TimePoint::min(), TimePoint::max()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.timeout.count() << " ms");
    AudioContinuityGuard guard;
    if (row.timeout != 40ms) {  // the timeout of a new guard
      guard.setWatchdogTimeout(row.timeout);
    }
    guard.prime(0, 0, 0);
    EXPECT_TRUE(guard.maybeMakeFallback(std::chrono::steady_clock::now()));
    guard.noteReceived({{}, kSecond}, row.received);
    for (const TimePoint now : {TimePoint::min(), row.received, row.lastQuiet}) {
      EXPECT_EQ(framesMade(guard, now), 0) << now.time_since_epoch().count();
    }
    if (row.lastQuiet != TimePoint::max()) {
      EXPECT_EQ(framesMade(guard, row.lastQuiet + 1ns), 1 + 10);
    }
  }
}

TEST(AudioContinuityGuardTest, AnEncoderKeepsItsBitRate) {
  const std::pair<int, int> askedAndGiven[] = {{24000, 24000}, {5999, 6000}, {256001, 256000}};
  AudioContinuityGuard guard;
  guard.prime(0, 0, 0);
  EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
  int before = 64000;
  for (const auto& [asked, given] : askedAndGiven) {
    guard.setFallbackBitrate(asked);
    EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
    EXPECT_EQ(g_bitrate, before);
    guard.reset();
    guard.prime(0, 0, 0);
    EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
    EXPECT_EQ(g_bitrate, given);
    before = given;
  }
}

TEST(AudioContinuityGuardTest, NoiseGoesOnWhereItWasInAnyFormat) {
  const EncodedAudioFrame formats[] = {{}, {{}, 0, 60 * kMs, 16000, 2}};
  for (const EncodedAudioFrame& format : formats) {
    AudioContinuityGuard guard;
    guard.noteReceived(format, kStart);
    g_channels = format.channels;
    g_pcm.clear();
    guard.setFallbackMode(Mode::Noise);
    EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
    guard.reset();
    guard.noteReceived(format, kStart);
    guard.makeFallbackUntil(100 * kSecond, 49, kSilent);
    ASSERT_GE(g_pcm.size(), 48000U);
    EXPECT_EQ(std::vector<opus_int16>(g_pcm.begin(), g_pcm.begin() + 8),
              (std::vector<opus_int16>{-687, 4940, -5769, -3369, 311, 6314, 6787, 7348}));
    EXPECT_EQ(std::accumulate(g_pcm.begin(), g_pcm.begin() + 48000, 0), 470524);  // computed apart
    g_pcm.clear();
    guard.setFallbackMode(static_cast<Mode>(7));  // as good as Silence
    EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
    EXPECT_EQ(g_pcm, std::vector<opus_int16>(g_pcm.size()));
  }
  g_channels = 1;
}

TEST(AudioContinuityGuardTest, AFrameThatCannotBeEncodedLeavesTheTimelineAlone) {
  const struct {
    std::uint32_t sampleRate;
    std::uint8_t channels;
    std::uint64_t durationNs;
    int encodingsToFault;
    std::size_t made;
  } rows[] = {
      {44100, 1, 20 * kMs, kNever, 0}, {48000, 3, 20 * kMs, kNever, 0},
      {48000, 1, 1, kNever, 0},        {48000, 1, 20 * kMs, 0, 0},
      {48000, 1, 20 * kMs, 3, 3},      {48000, 1, 44'739'242'666'667, kNever, 0},  // 2^31 samples
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.sampleRate << " Hz, to fault " << row.encodingsToFault);
    AudioContinuityGuard guard;
    guard.noteReceived({{}, kSecond}, kStart);
    ASSERT_TRUE(guard.maybeMakeFallback(kSilent));
    g_encodingsToFault = row.encodingsToFault;
    guard.prime(row.sampleRate, row.channels, row.durationNs);
    EXPECT_EQ(framesMade(guard, kSilent), row.made);
    g_encodingsToFault = kNever;
    guard.prime(0, 0, 0);
    EXPECT_EQ(nextLabel(guard), labelOf({{}, kSecond + (40 + 20 * row.made) * kMs}));
  }
}

// Samples are counted modulo 2^32, from a product modulo 2^64.
TEST(AudioContinuityGuardTest, CountsTheSamplesOfAnyDuration) {
  for (const std::uint64_t durationNs : {89'478'505'333'334ULL, 384'307'188'202'283ULL}) {
    AudioContinuityGuard guard;
    guard.prime(48000, 1, durationNs);
    const Frames made = guard.makeFallbackUntil(kSecond, 1, kSilent);
    ASSERT_EQ(made.size(), 1);
    EXPECT_EQ(made[0].durationNs, durationNs);
    EXPECT_EQ(opus_packet_get_nb_samples(made[0].payload.data(),
                                         static_cast<opus_int32>(made[0].payload.size()), 48000),
              960);
  }
}

// A frame that is too long to be encoded takes its noise, and no memory for it.
TEST(AudioContinuityGuardTest, SkipsTheNoiseOfAFrameThatIsTooLong) {
  const struct {
    std::uint64_t durationNs;
    std::uint8_t channels;
    opus_int16 next;  // the sample after it, found by stepping one by one
  } rows[] = {
      {140 * kMs, 1, 1421},
      {2 * kSecond, 1, -590},
      {2 * kSecond, 2, 1812},
      {44'739'242'645'834, 2, 6069},  // 2^31 - 1 samples a channel
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.durationNs << " ns");
    AudioContinuityGuard guard;
    guard.setFallbackMode(Mode::Noise);
    guard.prime(48000, row.channels, row.durationNs);
    g_allocated = 0;
    EXPECT_FALSE(guard.maybeMakeFallback(kSilent));
    EXPECT_LT(g_allocated, 5000U);
    guard.prime(0, 0, 0);
    g_pcm.clear();
    EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
    EXPECT_EQ(g_pcm.front(), row.next);
  }
}

TEST(AudioContinuityGuardTest, FollowsTheFormatOfTheFramesThatItHandsOver) {
  const Frames sent = {
      {{8}, 8 * kSecond, 20 * kMs, 48000, 1},
      {{7}, 7 * kSecond, 20 * kMs, 48000, 2},  // channels alone
      {{6}, 6 * kSecond, 60 * kMs, 16000, 2},  // rate and duration, with the frame's size
      {{5}, 5 * kSecond, 60 * kMs, 48000, 2},  // rate alone
      {{4}, 4 * kSecond, 20 * kMs, 48000, 2},  // duration alone
      {{3}, 3 * kSecond, 0, 24000, 0},         // the rest as before
  };
  AudioContinuityGuard guard;
  for (const EncodedAudioFrame& frame : sent) {
    guard.noteReceived(frame, kStart);
    EncodedAudioFrame expected = frame;
    if (frame.durationNs == 0) {
      expected = {{}, frame.ptsNs, 20 * kMs, 24000, 2};
    }
    const Frames made = guard.makeFallbackUntil(frame.ptsNs + 3 * kSecond, 3, kSilent);
    ASSERT_EQ(made.size(), 3);
    for (const EncodedAudioFrame& fallback : made) {
      expected.ptsNs += expected.durationNs;
      EXPECT_EQ(labelOf(fallback), labelOf(expected));
      // The packet itself has the label's channels and duration.
      const auto rate = static_cast<opus_int32>(fallback.sampleRate);
      const auto size = static_cast<opus_int32>(fallback.payload.size());
      const int samples = opus_packet_get_nb_samples(fallback.payload.data(), size, rate);
      EXPECT_EQ(static_cast<std::uint64_t>(samples) * kSecond,
                fallback.durationNs * fallback.sampleRate);
      EXPECT_EQ(opus_packet_get_nb_channels(fallback.payload.data()), fallback.channels);
    }
  }
  g_allocations = 0;
  const Frames drained = guard.drainReceived();
  EXPECT_LT(g_allocations, 6);  // not a payload each
  ASSERT_EQ(drained.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(labelOf(drained[i]), labelOf(sent[i]));
    EXPECT_EQ(drained[i].payload, sent[i].payload);
  }
}

TEST(AudioContinuityGuardTest, MakesNothingUnprimedDisabledOrReset) {
  AudioContinuityGuard guard;
  EXPECT_EQ(framesMade(guard, TimePoint::max()), 0);
  guard.prime(0, 0, 0);
  const auto silentNs = static_cast<std::uint64_t>(kSilent.time_since_epoch() / 1ns);
  EXPECT_EQ(nextLabel(guard), labelOf({{}, silentNs}));
  EXPECT_EQ(nextLabel(guard), labelOf({{}, silentNs + 20 * kMs}));

  guard.setFallbackMode(Mode::Disabled);
  guard.noteReceived({{}, kSecond}, kStart);
  EXPECT_EQ(framesMade(guard, kSilent), 0);
  guard.prime(16000, 2, 40 * kMs);
  EXPECT_EQ(ptsOf(guard.drainReceived()), Pts{kSecond});
  guard.setFallbackMode(Mode::Noise);
  EXPECT_EQ(nextLabel(guard), labelOf({{}, kSecond + 20 * kMs, 40 * kMs, 16000, 2}));

  // A reset forgets the track and keeps the settings.
  guard.setWatchdogTimeout(100ms);
  guard.noteReceived({{}, kSecond, 0, 0, 0}, kStart);
  guard.reset();
  EXPECT_EQ(framesMade(guard, kSilent), 0);
  EXPECT_TRUE(guard.drainReceived().empty());
  guard.noteReceived({{}, kSecond, 0, 0, 0}, kStart);
  EXPECT_EQ(framesMade(guard, kStart + 100ms), 0);
  EXPECT_EQ(nextLabel(guard), labelOf({{}, kSecond + 20 * kMs}));
  EXPECT_NE(g_pcm.back(), 0);
  guard.reset();
  guard.prime(0, 0, 0);
  EXPECT_EQ(ptsOf(guard.makeFallbackUntil(3 * kSecond, 10, kSilent)), Pts{3 * kSecond});
}

TEST(AudioContinuityGuardTest, AllocatesNothingButThePayloadsOnceTheEncoderExists) {
  AudioContinuityGuard guard;
  guard.setFallbackMode(Mode::Noise);
  guard.prime(0, 0, 0);
  guard.maybeMakeFallback(kSilent);
  g_allocations = 0;
  EXPECT_EQ(guard.makeFallbackUntil(~std::uint64_t{0}, 100, kSilent).size(), 100);
  EXPECT_LT(g_allocations, 150);  // a payload each, and the result's own storage
}

#if !defined(__SANITIZE_THREAD__)
TEST(AudioContinuityGuardTest, EveryOperationTakesItsOneLock) {
  using Guard = AudioContinuityGuard;
  const std::pair<const char*, void (*)(Guard&)> rows[] = {
      {"prime", [](Guard& guard) { guard.prime(0, 0, 0); }},
      {"setFallbackMode", [](Guard& guard) { guard.setFallbackMode(Mode::Silence); }},
      {"setFallbackBitrate", [](Guard& guard) { guard.setFallbackBitrate(64000); }},
      {"setWatchdogTimeout", [](Guard& guard) { guard.setWatchdogTimeout(40ms); }},
      {"noteReceived", [](Guard& guard) { guard.noteReceived({}, kStart); }},
      {"drainReceived", [](Guard& guard) { guard.drainReceived(); }},
      {"maybeMakeFallback", [](Guard& guard) { guard.maybeMakeFallback(kStart); }},
      {"makeFallbackUntil", [](Guard& guard) { guard.makeFallbackUntil(1, 1, kStart); }},
      {"reset", [](Guard& guard) { guard.reset(); }},
  };
  Guard guard;
  for (const auto& [name, call] : rows) {
    t_locks = 0;
    call(guard);
    EXPECT_EQ(t_locks, 1) << name;
  }
}
#endif

TEST(AudioContinuityGuardTest, ServesSeveralThreads) {
  AudioContinuityGuard guard;
  Pts receivedNs = {kSecond};
  guard.noteReceived({{}, kSecond}, kStart);
  std::atomic<bool> done = false;
  Frames drained;
  const auto drain = [&](int /*number*/) {
    Frames some = guard.drainReceived();
    std::move(some.begin(), some.end(), std::back_inserter(drained));
  };
  // A thread each: one that takes the lock for a second call would hide that the first did not.
  const auto repeat = [&done](auto operation) {
    return std::thread([&done, operation] {
      for (int i = 0; !done; ++i) {
        operation(i);
        std::this_thread::yield();
      }
    });
  };
  std::thread threads[] = {
      repeat(drain),
      repeat([&](int) { guard.makeFallbackUntil(~0ULL, 3, kSilent); }),
      repeat([&](int i) { guard.setFallbackMode(i % 2 == 0 ? Mode::Silence : Mode::Noise); }),
      repeat([&](int i) { guard.setFallbackBitrate(32000 + i % 2 * 64000); }),
      repeat([&](int i) { guard.setWatchdogTimeout(milliseconds(i % 100)); }),
      repeat([&](int) { guard.prime(48000, 2, 20 * kMs); }),
  };
  for (std::uint64_t i = 2; i <= 300; ++i) {
    receivedNs.push_back(i * kSecond);
    guard.noteReceived({{}, i * kSecond}, kStart);
    EXPECT_TRUE(guard.maybeMakeFallback(kSilent));
  }
  done = true;
  std::for_each(std::begin(threads), std::end(threads), std::mem_fn(&std::thread::join));
  drain(0);
  EXPECT_EQ(ptsOf(drained), receivedNs);
}

}  // namespace
