// The platform probe on the real registry, one process a board: the library probes once.

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "support/Interpose.h"

namespace {

std::mutex g_mutex;
std::string g_probes;

}  // namespace

extern "C" GstElementFactory* gst_element_factory_find(const gchar* name) {
  static auto* const real =
      nextDefinition<decltype(gst_element_factory_find)>("gst_element_factory_find");
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_probes.append(name).append(" ");
  return real(name);
}

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

struct Board {
  const char* present;               // elements of the simulated board
  std::vector<const char*> missing;  // standard elements that it lacks

  std::string name;
  std::string codecs;
  const char* converter;  // of the input conversion chain
  const char* upload;     // how the HTTP upload chain begins
  std::string probes;     // behind those for NVIDIA's converters and encoders, which always come
};

// clang-format off
const Board kBoards[] = {
    {"", {}, "none", "", "", "",
     "vpuenc_h264 vpuenc_hevc "},
    {"nvidia", {}, "nvidia-nvmm", "h264 h265 av1 mjpeg ", "nvvidconv", "! nvvideoconvert ",
     "nvv4l2av1enc av1parse nvjpegenc "},
    {"nvvidconv,nvv4l2h264enc,vpuenc_h264,imxvideoconvert_g2d", {}, "nvidia-nvmm", "h264 ", "nvvidconv", "! nvvidconv ",
     "nvv4l2av1enc nvjpegenc "},
    {"nvvidconv,nvv4l2h265enc", {}, "nvidia-nvmm", "h265 ", "nvvidconv", "! nvvidconv ",
     "nvv4l2av1enc nvjpegenc "},
    {"nvvideoconvert,nvv4l2h264enc,nvjpegenc", {}, "nvidia-nvmm", "h264 mjpeg ", "nvvideoconvert", "! nvvideoconvert ",
     "nvv4l2av1enc nvjpegenc "},
    {"nvvidconv,nvv4l2h264enc,nvv4l2av1enc", {"av1parse", "h264parse"}, "nvidia-nvmm", "h264 ", "nvvidconv", "! nvvidconv ",
     "nvv4l2av1enc av1parse nvjpegenc "},
    {"nvvidconv,nvvideoconvert,nvv4l2av1enc,nvjpegenc", {}, "none", "", "", "",
     "vpuenc_h264 vpuenc_hevc "},
    {"nvv4l2h264enc,vpuenc_h264,vpuenc_hevc", {}, "dmabuf-nv12-vpu", "h264 h265 mjpeg ", "", "! video",
     "vpuenc_h264 vpuenc_hevc imxvideoconvert_g2d jpegenc h264parse h265parse "},
    {"vpuenc_h264", {"h264parse", "jpegenc"}, "dmabuf-nv12-vpu", "", "", "! video",
     "vpuenc_h264 vpuenc_hevc imxvideoconvert_g2d jpegenc h264parse "},
    {"vpuenc_hevc", {"h264parse"}, "dmabuf-nv12-vpu", "h265 mjpeg ", "", "! video",
     "vpuenc_h264 vpuenc_hevc imxvideoconvert_g2d jpegenc h265parse "},
    {"imx", {"h265parse"}, "dmabuf-nv12-vpu", "h264 mjpeg ", "", "! imxvideoconvert_g2d ",
     "vpuenc_h264 vpuenc_hevc imxvideoconvert_g2d jpegenc h264parse h265parse "},
};
// clang-format on

void setUp(const Board& board) {
  std::string error;
  if (*board.present != '\0') {
    ASSERT_TRUE(simulated_board::registerElements(nullptr, board.present, error)) << error;
  }
  GstRegistry* const registry = gst_registry_get();
  // GStreamer 1.18 has no such parser. The probe looks at names only.
  g_autoptr(GstPluginFeature) av1parse = gst_registry_lookup_feature(registry, "av1parse");
  if (av1parse == nullptr) {
    ASSERT_TRUE(gst_element_register(nullptr, "av1parse", GST_RANK_NONE, GST_TYPE_BIN));
  }
  for (const char* element : board.missing) {
    g_autoptr(GstPluginFeature) feature = gst_registry_lookup_feature(registry, element);
    ASSERT_NE(feature, nullptr) << element << " is needed for this test to mean something";
    gst_registry_remove_feature(registry, feature);
  }
  g_probes.clear();
}

// Several threads ask at once; whoever comes first probes for all.
const GstVideoBackend& instanceFromThreads() {
  std::vector<const GstVideoBackend*> seen(8);
  std::vector<std::thread> threads;
  for (const GstVideoBackend*& backend : seen) {
    threads.emplace_back([&backend] { backend = &GstVideoBackend::instance(); });
  }
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads[i].join();
    EXPECT_EQ(seen[i], seen[0]);
  }
  return *seen[0];
}

void check(const GstVideoBackend& backend, const Board& board) {
  EXPECT_EQ(g_probes, "nvvidconv nvvideoconvert nvv4l2h264enc nvv4l2h265enc " + board.probes);
  EXPECT_EQ(backend.name(), board.name);
  std::string codecs;
  for (const Codec codec : {Codec::H264, Codec::H265, Codec::Av1, Codec::Mjpeg}) {
    codecs += backend.supports(codec) ? std::string(GstVideoBackend::codecName(codec)) + " " : "";
  }
  EXPECT_EQ(codecs, board.codecs);
  // Named with the platform, whether the board has them or not.
  const std::string encoders =
      std::string(backend.h26xEncoder(false)) + " " + backend.h26xEncoder(true);
  EXPECT_EQ(encoders, board.name == "none"          ? " "
                      : board.name == "nvidia-nvmm" ? "nvv4l2h264enc nvv4l2h265enc"
                                                    : "vpuenc_h264 vpuenc_hevc");
  EXPECT_EQ(backend.available(), board.name != "none");
  EXPECT_THAT(backend.inputConversionChain(nullptr), testing::HasSubstr(board.converter));
  EXPECT_THAT(backend.httpUploadChain(nullptr), testing::StartsWith(board.upload));
}

TEST(PlatformProbeDeathTest, FindsOnceWhatTheBoardHasInTheFixedOrder) {
  for (const Board& board : kBoards) {
    EXPECT_EXIT(
        {
          setUp(board);
          check(instanceFromThreads(), board);
          if (*board.present == '\0') {  // elements that come later are not seen
            setUp({"nvidia", {}, "", "", "", "", ""});
            EXPECT_STREQ(GstVideoBackend::instance().name(), "none");
            EXPECT_EQ(g_probes, "");
          }
          std::fflush(stdout);
          std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "")
        << board.present;
  }
}

}  // namespace
