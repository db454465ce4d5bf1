// What a call costs, in counts: instructions beside the work that cannot be avoided, which
// callgrind counts exactly, and allocations.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/GstVideoBackend.h>

#include "support/Interpose.h"
#include "support/Profiles.h"
#include "support/TempFolder.h"
#include "support/WrapByHand.h"

namespace {
thread_local int t_allocations = 0;
}  // namespace

// The next operator new is the standard one, which its own operator delete goes with.
// NOLINTNEXTLINE(misc-new-delete-overloads)
void* operator new(std::size_t size) {
  static auto* const real = nextDefinition<void*(std::size_t)>("_Znwm");
  ++t_allocations;
  return real(size);
}

namespace {

using media_backend::GstVideoBackend;

constexpr unsigned kWidth = 1920;
constexpr unsigned kHeight = 1080;

TEST(Cost, BuildersAllocateTheirTextAlone) {
  GstVideoBackend::EncoderConfig config;
  config.codec = GstVideoBackend::Codec::H265;
  for (const auto& profile : {nvidiaProfile(), imxProfile()}) {
    const GstVideoBackend backend(profile);
    const std::function<std::string()> builders[] = {
        [&] { return backend.inputConversionChain("bt709"); },
        [&] { return backend.transportEncoderChain(config, "-1"); },
        [&] { return backend.rtspPayloaderChain(config.codec, 1400); },
        [&] { return backend.httpUploadChain("bt709"); },
        [&] { return backend.httpEncoderChain(config); },
        [&] { return backend.recorderPipeline(config, 60, true, true); }};
    for (const auto& build : builders) {
      t_allocations = 0;
      const std::string text = build();
      EXPECT_EQ(t_allocations, 1) << profile.name << ": " << text;
    }
  }
}

}  // namespace

// Without optimisation, it is the calls of small functions that are counted.
#if __has_include(<valgrind/callgrind.h>) && defined(__OPTIMIZE__) && !defined(EMULATED) && \
    !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#include <valgrind/callgrind.h>

namespace {

std::shared_ptr<lumora::ExportedFrame> exportedFrame() {
  const std::string pixels(std::size_t{kWidth} * kHeight * 3 / 2, 'x');
  return lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(pixels.data(), kWidth, kHeight, kWidth));
}

constexpr unsigned kTimes = 10;

// A piece of work beside its peer, and how many times the peer's instructions it may take.
struct Row {
  const char* name;
  std::function<void()> subject;
  std::function<void()> peer;
  double most;
};

Row wrapping(const char* name, const GstVideoBackend::Profile& profile,
             GstBuffer* (*byHand)(const std::shared_ptr<lumora::ExportedFrame>&)) {
  return {name,
          [frame = exportedFrame(), backend = GstVideoBackend(profile)] {
            gst_buffer_unref(backend.wrapFrame(frame->handle(), frame));
          },
          [frame = exportedFrame(), byHand] { gst_buffer_unref(byHand(frame)); }, 1.05};
}

// A picture of one row more has a gap between its planes, so it is repacked.
Row picture(const char* name, unsigned height, bool repacks, double most) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, kWidth, height);
  g_autoptr(GstCaps) caps = gst_video_info_to_caps(&info);
  g_autoptr(GstBuffer) buffer = gst_buffer_new_allocate(nullptr, info.size, nullptr);
  gst_buffer_memset(buffer, 0, 0x5a, info.size);
  const std::shared_ptr<GstSample> sample(gst_sample_new(buffer, caps, nullptr, nullptr),
                                          gst_sample_unref);
  const std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 3 / 2, 0x5a);
  return {name,
          [sample, scratch = std::vector<std::uint8_t>()]() mutable {
            std::string error;
            media_backend::gst_source::picture_from_nv12_sample(sample.get(), scratch, error);
          },
          [pixels, packed = pixels, repacks]() mutable {
            if (repacks) {
              std::memcpy(packed.data(), pixels.data(), packed.size());
            }
            lumora::LumoraPicture::fromNv12Host(packed.data(), kWidth, kHeight, kWidth);
          },
          most};
}

// Under valgrind: counts the work's instructions into the next file.
void count(const std::function<void()>& work) {
  work();  // what only a first call does
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_ZERO_STATS;
  for (unsigned i = 0; i < kTimes; ++i) {
    work();
  }
  CALLGRIND_DUMP_STATS;
  CALLGRIND_STOP_INSTRUMENTATION;
}

// Of the work that was counted as the `number`th, from 1; 0 if none was.
double countIn(const std::string& counts, std::size_t number) {
  std::ifstream file(counts + "." + std::to_string(number));
  const std::string total = "summary: ";
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(total, 0) == 0) {
      return std::stod(line.substr(total.size()));
    }
  }
  return 0;
}

TEST(Cost, InstructionsAreFewMoreThanTheWorkTakes) {
  // GStreamer's look at the caps alone takes 0.016 times as much as the picture as it is.
  const Row rows[] = {wrapping("wrapFrame() on i.MX", imxProfile(), wrapDmaBufByHand),
                      wrapping("wrapFrame() on NVIDIA", nvidiaProfile(), wrapSurfaceByHand),
                      picture("a picture as it is", kHeight, false, 1.03),
                      picture("a picture repacked", kHeight + 1, true, 1.1)};
  if (RUNNING_ON_VALGRIND != 0) {
    for (const Row& row : rows) {
      count(row.subject);
      count(row.peer);
    }
    return;
  }
  if (std::system("valgrind --version >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "no valgrind here";
  }
  const TempFolder folder;
  const std::string counts = folder / "counts";
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  // Else the C library copies a picture by one instruction, which is counted once for every byte.
  const std::string command =
      "env -u GTEST_OUTPUT GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000"
      ":glibc.cpu.x86_non_temporal_threshold=1000000000 valgrind -q --tool=callgrind "
      "--instr-atstart=no --callgrind-out-file='" +
      counts + "' '" + self + "' --gtest_filter=Cost.Instructions*";
  ASSERT_EQ(std::system(command.c_str()), 0);
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const double subject = countIn(counts, 2 * i + 1);
    const double peer = countIn(counts, 2 * i + 2);
    ASSERT_GT(peer, kTimes * 100) << rows[i].name << ": nothing was counted";
    std::printf("%-30s %10.0f instructions, %.3f of the peer's\n", rows[i].name, subject / kTimes,
                subject / peer);
    EXPECT_LE(subject / peer, rows[i].most) << rows[i].name;
    EXPECT_GT(subject / peer, 0.9) << rows[i].name << ": something was not done";
  }
}

}  // namespace
#endif
