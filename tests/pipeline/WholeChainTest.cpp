// Exported camera frames through the library's descriptions on the simulated boards, and back to
// pictures with ffmpeg.

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "support/Av1Depacketizer.h"
#include "support/Command.h"
#include "support/MovingPicture.h"
#include "support/Pipeline.h"
#include "support/Profiles.h"
#include "support/Requirements.h"
#include "support/TempFolder.h"

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using EncoderConfig = GstVideoBackend::EncoderConfig;
using Profile = GstVideoBackend::Profile;

constexpr unsigned kWidth = 322;  // rows of exported frames are padded
constexpr unsigned kHeight = 180;
constexpr int kFrames = 40;
constexpr double kLeastPsnr = 30;
// That of so small a picture; GStreamer before 1.20 converts others to it on the way to an encoder.
constexpr const char* kColorimetry = "bt601";

struct Case {
  const char* name;
  Profile (*profile)();
  Codec codec;
};

void PrintTo(const Case& row, std::ostream* out) {
  *out << row.name;
}

class WholeChain : public testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    std::string error;
    ASSERT_TRUE(simulated_board::registerElements(nullptr, "nvidia,imx", error)) << error;
  }

  void SetUp() override {
    if (GetParam().codec == Codec::Av1 && !canEncodeAv1()) {
      GTEST_SKIP() << "AV1 takes av1parse and av1enc of GStreamer 1.20";
    }
  }

  EncoderConfig config() const { return {GetParam().codec, 4000000, 1, 1, 15, 15}; }

  // Sends kFrames pictures through the pipeline to its end and sees every one let go.
  void run(Pipeline& pipeline, const char* encoder) {
    ASSERT_TRUE(backend_.setInputCaps(pipeline.source(), kWidth, kHeight, 30, true, kColorimetry));
    encoded_ = 0;
    const auto countBuffer = +[](GstPad*, GstPadProbeInfo*, gpointer count) {
      ++*static_cast<std::atomic<int>*>(count);
      return GST_PAD_PROBE_OK;
    };
    g_autoptr(GstPad) pad = gst_element_get_static_pad(pipeline.element(encoder).get(), "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, countBuffer, &encoded_, nullptr);
    std::vector<std::weak_ptr<lumora::ExportedFrame>> sent;
    for (int i = 0; i < kFrames; ++i) {
      auto frame = lumora::ExportedFrame::fromPicture(*movingPicture(kWidth, kHeight, i));
      ASSERT_NE(frame, nullptr);
      ASSERT_GT(frame->handle().planes[0].stride, kWidth);
      sent.push_back(frame);
      GstBuffer* const buffer = backend_.wrapFrame(frame->handle(), frame);
      ASSERT_NE(buffer, nullptr);
      frame.reset();
      GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND / 30;
      GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
      pipeline.push(buffer);
      while (encoded_ <= i) {  // a frame pushed earlier is dropped
        g_autoptr(GstMessage) error = pipeline.message(GST_MESSAGE_ERROR, GST_MSECOND);
        ASSERT_EQ(error, nullptr);
      }
    }
    pipeline.finish();
    g_autoptr(GstMessage) end = pipeline.message(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    ASSERT_TRUE(end != nullptr && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS);
    for (std::size_t i = 0; i < sent.size(); ++i) {
      EXPECT_TRUE(sent[i].expired()) << "frame " << i << " is still held";
    }
  }

  // Decodes files one after the other; they hold exactly the pictures that were sent.
  void expectPictures(const std::vector<std::string>& files, const std::string& format) {
    std::string nv12;
    for (const std::string& file : files) {
      runCommand({"ffmpeg", "-v", "error", "-y", "-f", format, "-i", file, "-map", "0:v", "-vf",
                  "settb=1/30,setpts=N", "-r", "30",  // every frame, once
                  "-f", "rawvideo", "-pix_fmt", "nv12", folder_ / "decoded.nv12"});
      std::ifstream decoded(folder_ / "decoded.nv12", std::ios::binary);
      nv12.append(std::istreambuf_iterator<char>(decoded), {});
    }
    constexpr std::size_t kFrameBytes = kWidth * kHeight * 3 / 2;
    ASSERT_EQ(nv12.size(), kFrames * kFrameBytes);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(nv12.data());
    for (int i = 0; i < kFrames; ++i) {
      EXPECT_GT(psnr(bytes + static_cast<std::size_t>(i) * kFrameBytes,
                     *movingPicture(kWidth, kHeight, i)),
                kLeastPsnr)
          << "picture " << i;
    }
  }

  const GstVideoBackend backend_{GetParam().profile()};
  TempFolder folder_;
  std::atomic<int> encoded_;  // frames, by the pipeline that runs
};

const std::string kSource = "appsrc name=in is-live=true block=false format=time ";

const char* ffmpegName(Codec codec) {
  return codec == Codec::Av1 ? "obu" : codec == Codec::H265 ? "hevc" : "h264";
}

TEST_P(WholeChain, TransportStreamShowsTheFrames) {
  const std::string name = GstVideoBackend::codecName(GetParam().codec);
  const std::string caps = GetParam().codec == Codec::Av1
                               ? ""
                               : "! video/x-" + name + ",stream-format=byte-stream,alignment=au ";
  Pipeline pipeline(kSource + backend_.inputConversionChain(kColorimetry) +
                    backend_.transportEncoderChain(config(), "-1") + caps +
                    "! filesink location=" + folder_ / "stream");
  ASSERT_NO_FATAL_FAILURE(run(pipeline, "encoder"));
  expectPictures({folder_ / "stream"}, ffmpegName(GetParam().codec));
}

TEST_P(WholeChain, HttpStreamShowsTheFrames) {
  Pipeline pipeline(kSource + backend_.httpUploadChain(kColorimetry) +
                        backend_.httpEncoderChain(config()) + " wait-on-eos=false",
                    "in", "sink");
  ASSERT_NO_FATAL_FAILURE(run(pipeline, "encoder"));
  std::ofstream stream(folder_ / "stream", std::ios::binary);
  for (const std::string& unit : pipeline.pullAll()) {
    stream << unit;
  }
  stream.close();
  expectPictures({folder_ / "stream"}, ffmpegName(GetParam().codec));
}

TEST_P(WholeChain, SegmentsShowTheFrames) {
  const std::string description = backend_.recorderPipeline(config(), 1, false, false);
  if (description.empty()) {
    ASSERT_EQ(GetParam().codec, Codec::Av1);  // the one codec that is not recorded
    return;
  }
  // As the header says.
  Pipeline pipeline(
      description + (isBefore120() ? " muxer=mpegtsmux" : "") + " location=" + folder_ / "%d.ts",
      "mysrc");
  ASSERT_NO_FATAL_FAILURE(run(pipeline, "enc"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "2.ts"));
  expectPictures({folder_ / "0.ts", folder_ / "1.ts"}, "mpegts");
}

INSTANTIATE_TEST_SUITE_P(Boards, WholeChain,
                         testing::Values(Case{"NvidiaH264", nvidiaProfile, Codec::H264},
                                         Case{"NvidiaH265", nvidiaProfile, Codec::H265},
                                         Case{"NvidiaAv1", nvidiaProfile, Codec::Av1},
                                         Case{"ImxH264", imxProfile, Codec::H264},
                                         Case{"ImxH265", imxProfile, Codec::H265}),
                         [](const auto& row) { return row.param.name; });

// No program of Debian 12 takes AV1 out of RTP packets; the station's tests see the other codecs
// over RTP.
using Av1OverRtp = WholeChain;

TEST_P(Av1OverRtp, PacketsShowTheFrames) {
  Pipeline pipeline(kSource + backend_.inputConversionChain(kColorimetry) +
                    backend_.transportEncoderChain(config(), nullptr) +
                    backend_.rtspPayloaderChain(Codec::Av1, 1400) +
                    "! appsink name=out sync=false wait-on-eos=false");
  ASSERT_NO_FATAL_FAILURE(run(pipeline, "encoder"));
  Av1Depacketizer depacketizer;
  for (const std::string& packet : pipeline.pullAll()) {
    depacketizer.take(packet);
  }
  std::ofstream stream(folder_ / "stream", std::ios::binary);
  for (const auto& unit : depacketizer.units()) {
    stream << lowOverhead(unit);
  }
  stream.close();
  expectPictures({folder_ / "stream"}, "obu");
}

INSTANTIATE_TEST_SUITE_P(Boards, Av1OverRtp,
                         testing::Values(Case{"Nvidia", nvidiaProfile, Codec::Av1}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
