// What a call costs beside the work that cannot be avoided, in instructions, which callgrind counts
// exactly. What the benchmarks say in time, this says without the noise of a machine.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gst/video/video.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/AudioContinuityGuard.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/GstVideoBackend.h>
#include <opus.h>

#include "support/Profiles.h"
#include "support/TempFolder.h"
#include "support/WrapByHand.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED
#endif

// Without optimisation, it is the calls of small functions that are counted.
#if __has_include(<valgrind/callgrind.h>) && defined(__OPTIMIZE__) && !defined(SANITIZED)
#include <valgrind/callgrind.h>

namespace {

using media_backend::AudioContinuityGuard;
using media_backend::EncodedAudioFrame;
using media_backend::GstVideoBackend;
using std::chrono::steady_clock;

constexpr unsigned kWidth = 1920;
constexpr unsigned kHeight = 1080;
constexpr unsigned kTimes = 10;
constexpr int kBatch = 50;

// A piece of work beside its peer, and how many times the peer's instructions it may take.
struct Row {
  std::string name;
  std::function<void()> subject;
  std::function<void()> peer;
  double most;
};

std::vector<std::uint8_t> pixelsOf(unsigned height) {
  return std::vector<std::uint8_t>(std::size_t{kWidth} * height * 3 / 2, 0x5a);
}

void addWrapping(std::vector<Row>& rows) {
  const std::shared_ptr<lumora::ExportedFrame> frame = lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(pixelsOf(kHeight).data(), kWidth, kHeight, kWidth));
  const auto add = [&](const char* name, const GstVideoBackend::Profile& profile, auto byHand) {
    const auto wrap = [frame, backend = GstVideoBackend(profile)] {
      gst_buffer_unref(backend.wrapFrame(frame->handle(), frame));
    };
    rows.push_back({name, wrap, [frame, byHand] { gst_buffer_unref(byHand(frame)); }, 1.05});
  };
  add("wrapFrame() on i.MX", imxProfile(), wrapDmaBufByHand);
  add("wrapFrame() on NVIDIA", nvidiaProfile(), wrapSurfaceByHand);
}

// A picture of one row more has a gap between its planes, so it is repacked.
std::function<void()> pictureOf(unsigned height) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, kWidth, height);
  g_autoptr(GstCaps) caps = gst_video_info_to_caps(&info);
  g_autoptr(GstBuffer) buffer = gst_buffer_new_allocate(nullptr, info.size, nullptr);
  gst_buffer_memset(buffer, 0, 0x5a, info.size);
  const std::shared_ptr<GstSample> sample(gst_sample_new(buffer, caps, nullptr, nullptr),
                                          gst_sample_unref);
  return [sample, scratch = std::vector<std::uint8_t>()]() mutable {
    std::string error;
    media_backend::gst_source::picture_from_nv12_sample(sample.get(), scratch, error);
  };
}

void addPictures(std::vector<Row>& rows) {
  const auto construct = [](const std::vector<std::uint8_t>& pixels) {
    lumora::LumoraPicture::fromNv12Host(pixels.data(), kWidth, kHeight, kWidth);
  };
  // GStreamer's look at the caps alone takes 0.016 times as much.
  rows.push_back({"a picture as it is", pictureOf(kHeight),
                  [construct, pixels = pixelsOf(kHeight)] { construct(pixels); }, 1.03});
  const auto copyAndConstruct = [construct, pixels = pixelsOf(kHeight),
                                 packed = pixelsOf(kHeight)]() mutable {
    std::memcpy(packed.data(), pixels.data(), packed.size());
    construct(packed);
  };
  rows.push_back({"a picture repacked", pictureOf(kHeight + 1), copyAndConstruct, 1.1});
}

void addSound(std::vector<Row>& rows) {
  using Mode = AudioContinuityGuard::FallbackMode;
  const steady_clock::time_point now = steady_clock::now();
  const auto guard = std::make_shared<AudioContinuityGuard>();
  EncodedAudioFrame frame;
  frame.payload.assign(160, 1);
  const auto noteAndDrain = [guard, frame, now] {
    for (int i = 0; i < kBatch; ++i) {
      guard->noteReceived(frame, now);
    }
    guard->drainReceived();
  };
  const auto copy = [frame] {
    std::deque<EncodedAudioFrame> queue;
    for (int i = 0; i < kBatch; ++i) {
      queue.push_back(frame);
    }
  };
  rows.push_back({"notes of frames and a drain", noteAndDrain, copy, 1.3});

  const auto silent = std::make_shared<AudioContinuityGuard>();
  silent->setFallbackMode(Mode::Silence);
  silent->prime(48000, 1, 20'000'000);
  const std::shared_ptr<OpusEncoder> encoder(
      opus_encoder_create(48000, 1, OPUS_APPLICATION_AUDIO, nullptr), opus_encoder_destroy);
  opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(64000));
  opus_encoder_ctl(encoder.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
  const auto encode = [encoder, pcm = std::vector<opus_int16>(960),
                       packet = std::vector<std::uint8_t>(4000)]() mutable {
    ASSERT_GT(opus_encode(encoder.get(), pcm.data(), 960, packet.data(), 4000), 0);
  };
  const auto makeFallback = [silent, late = now + std::chrono::hours(1)] {
    silent->maybeMakeFallback(late);
  };
  rows.push_back({"a silent frame", makeFallback, encode, 1.03});
}

std::vector<Row> makeRows() {
  std::vector<Row> rows;
  addWrapping(rows);
  addPictures(rows);
  addSound(rows);
  return rows;
}

// Under valgrind: counts the instructions of the work into a file that tells its name.
void count(const std::string& name, const std::function<void()>& work) {
  work();  // what only a first call does
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_ZERO_STATS;
  for (unsigned i = 0; i < kTimes; ++i) {
    work();
  }
  CALLGRIND_DUMP_STATS_AT(name.c_str());
  CALLGRIND_STOP_INSTRUMENTATION;
}

// The counts of such files, by name.
std::map<std::string, double> countsIn(const std::filesystem::path& folder) {
  std::map<std::string, double> counts;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path());
    const std::string trigger = "desc: Trigger: Client Request: ";
    const std::string total = "summary: ";
    std::string name;
    for (std::string line; std::getline(file, line);) {
      if (line.rfind(trigger, 0) == 0) {
        name = line.substr(trigger.size());
      } else if (line.rfind(total, 0) == 0 && !name.empty()) {
        counts[name] = std::stod(line.substr(total.size()));
      }
    }
  }
  return counts;
}

TEST(Instructions, AreFewMoreThanTheWorkTakes) {
  if (RUNNING_ON_VALGRIND != 0) {
    for (const Row& row : makeRows()) {
      count(row.name, row.subject);
      count(row.name + ", peer", row.peer);
    }
    return;
  }
  if (std::system("valgrind --version >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "no valgrind here";
  }
  const TempFolder folder;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  // Else the C library copies a picture by one instruction, which is counted once for every byte.
  const std::string environment =
      "env -u GTEST_OUTPUT GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000"
      ":glibc.cpu.x86_non_temporal_threshold=1000000000 ";
  const std::string command =
      environment + "valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file='" +
      (folder / "counts") + "' '" + self + "' >'" + (folder / "log") + "' 2>&1 || { cat '" +
      (folder / "log") + "'; exit 1; }";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const std::map<std::string, double> counts = countsIn(folder.path());
  for (const Row& row : makeRows()) {
    ASSERT_EQ(counts.count(row.name) + counts.count(row.name + ", peer"), 2) << row.name;
    const double ratio = counts.at(row.name) / counts.at(row.name + ", peer");
    std::printf("%-30s %10.0f instructions, %.3f of the peer's\n", row.name.c_str(),
                counts.at(row.name) / kTimes, ratio);
    EXPECT_GT(counts.at(row.name + ", peer"), kTimes * 100) << row.name << ": nothing was counted";
    EXPECT_LE(ratio, row.most) << row.name;
    EXPECT_GT(ratio, 0.9) << row.name << ": something was not done";
  }
}

}  // namespace
#endif
