// What the guard costs beside the work that cannot be avoided. Subject and peer take turns in one
// process; the ratios of their medians are printed last, beside what they should not exceed.

#include <chrono>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <media_backend/AudioContinuityGuard.h>
#include <opus.h>

#include "Ratios.h"

namespace {

using media_backend::AudioContinuityGuard;
using media_backend::EncodedAudioFrame;
using std::chrono::steady_clock;
using Mode = AudioContinuityGuard::FallbackMode;

constexpr int kFrameSamples = 960;
constexpr std::size_t kPayloadBytes = 160;  // 20 ms at 64 kbit/s
constexpr int kBatch = 50;                  // a second
constexpr std::int64_t kManyFrames = 1'000'000;

const std::vector<Ratio> kRatios = {
    {"silent fallback frame / bare opus_encode", "fallback/1", "opus_encode/1", 1.03},
    {"noisy fallback frame / bare opus_encode", "fallback/2", "opus_encode/2", 1.03},
    {"note and drain 50 frames / copy into a deque", "note_and_drain", "copy_to_deque", 1.3},
    {"drain 1,000,000 frames / drain 10 frames", "drain/1000000", "drain/10", 1.0},
};

// A second of the PCM that the guard encodes.
std::vector<std::int16_t> pcmOf(Mode mode) {
  std::vector<std::int16_t> pcm(std::size_t{50} * kFrameSamples);
  std::uint32_t state = 0x12345678;
  for (std::int16_t& sample : pcm) {
    state = state * 1664525U + 1013904223U;
    const int noise = (static_cast<int>(state >> 16U) - 32768) / 4;
    sample = static_cast<std::int16_t>(mode == Mode::Noise ? noise : 0);
  }
  return pcm;
}

void encodeBare(benchmark::State& state) {
  const std::vector<std::int16_t> pcm = pcmOf(static_cast<Mode>(state.range(0)));
  const std::unique_ptr<OpusEncoder, decltype(&opus_encoder_destroy)> encoder(
      opus_encoder_create(48000, 1, OPUS_APPLICATION_AUDIO, nullptr), opus_encoder_destroy);
  opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(64000));
  opus_encoder_ctl(encoder.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
  std::vector<std::uint8_t> packet(4000);
  std::size_t at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(opus_encode(encoder.get(), pcm.data() + at, kFrameSamples,
                                         packet.data(), static_cast<opus_int32>(packet.size())));
    at = (at + kFrameSamples) % pcm.size();
  }
}

void makeFallback(benchmark::State& state) {
  AudioContinuityGuard guard;
  guard.setFallbackMode(static_cast<Mode>(state.range(0)));
  guard.prime(48000, 1, 20'000'000);
  const steady_clock::time_point now = steady_clock::now() + std::chrono::hours(1);
  guard.maybeMakeFallback(now);
  for (auto _ : state) {
    benchmark::DoNotOptimize(guard.maybeMakeFallback(now));
  }
}

EncodedAudioFrame receivedFrame() {
  EncodedAudioFrame frame;
  frame.payload.assign(kPayloadBytes, 1);
  return frame;
}

void copyToDeque(benchmark::State& state) {
  const EncodedAudioFrame frame = receivedFrame();
  for (auto _ : state) {
    std::deque<EncodedAudioFrame> queue;
    for (int i = 0; i < kBatch; ++i) {
      queue.push_back(frame);
    }
    benchmark::DoNotOptimize(queue);
  }
}

void noteAndDrain(benchmark::State& state) {
  const EncodedAudioFrame frame = receivedFrame();
  const steady_clock::time_point now = steady_clock::now();
  AudioContinuityGuard guard;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      guard.noteReceived(frame, now);
    }
    std::deque<EncodedAudioFrame> queue = guard.drainReceived();
    benchmark::DoNotOptimize(queue);
  }
}

// Only the hand-over counts. Caches and heap are left alike by either size, since the frames that
// the guard does not get go to another one.
void drain(benchmark::State& state) {
  const EncodedAudioFrame frame = receivedFrame();
  const steady_clock::time_point now = steady_clock::now();
  AudioContinuityGuard guard;
  AudioContinuityGuard other;
  for (auto _ : state) {
    for (std::int64_t i = kManyFrames; i > 0; --i) {
      (i > state.range(0) ? other : guard).noteReceived(frame, now);
    }
    const auto others = other.drainReceived();
    benchmark::DoNotOptimize(std::deque<EncodedAudioFrame>());  // leaves storage at hand
    const steady_clock::time_point begin = steady_clock::now();
    std::deque<EncodedAudioFrame> queue = guard.drainReceived();
    const steady_clock::time_point end = steady_clock::now();
    benchmark::DoNotOptimize(queue);
    state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
  }
}

}  // namespace

BENCHMARK(encodeBare)->Name("opus_encode")->Arg(1)->Arg(2);
BENCHMARK(makeFallback)->Name("fallback")->Arg(1)->Arg(2);
BENCHMARK(copyToDeque)->Name("copy_to_deque");
BENCHMARK(noteAndDrain)->Name("note_and_drain");
BENCHMARK(drain)->Name("drain")->Arg(10)->Arg(kManyFrames)->Iterations(3)->UseManualTime();

int main(int argc, char** argv) {
  // In a process of one thread a mutex costs less than it does in a host.
  std::promise<void> finished;
  std::thread second([&finished] { finished.get_future().wait(); });

  const int exitCode = runAndCompare(argc, argv, kRatios);
  finished.set_value();
  second.join();
  return exitCode;
}
