// Exported camera frames through the library's descriptions on the simulated boards, and back to
// pictures with ffmpeg.

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <media_backend/AudioContinuityGuard.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "support/Av1Depacketizer.h"
#include "support/Bytes.h"
#include "support/Command.h"
#include "support/MovingPicture.h"
#include "support/Pipeline.h"
#include "support/Profiles.h"
#include "support/Requirements.h"
#include "support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
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

  // Sends kFrames pictures through the pipeline to its end and sees every one let go. Before each,
  // `pushBeside` sends what comes with it.
  void run(Pipeline& pipeline, const char* encoder,
           const std::function<void(int)>& pushBeside = nullptr) {
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
      if (pushBeside != nullptr) {
        pushBeside(i);
      }
      GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND / 30;
      GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
      pipeline.push(buffer);
      while (encoded_ <= i) {  // the recorder drops what comes too soon
        g_autoptr(GstMessage) error = pipeline.message(GST_MESSAGE_ERROR, GST_MSECOND);
        ASSERT_EQ(error, nullptr);
      }
    }
    for (const char* const name : {"klvsrc", "audiosrc"}) {
      if (const auto beside = pipeline.element(name); beside != nullptr) {
        gst_app_src_end_of_stream(GST_APP_SRC(beside.get()));
      }
    }
    pipeline.finish();
    g_autoptr(GstMessage) end = pipeline.message(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    ASSERT_TRUE(end != nullptr && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS);
    for (std::size_t i = 0; i < sent.size(); ++i) {
      EXPECT_TRUE(sent[i].expired()) << "frame " << i << " is still held";
    }
  }

  // Pushes what goes beside the frames into the source named `name`.
  static void pushBeside(const Pipeline& pipeline, const char* name, const std::string& bytes,
                         GstClockTime pts, GstClockTime duration) {
    GstBuffer* const buffer = bufferOf(bytes);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = duration;
    gst_app_src_push_buffer(GST_APP_SRC(pipeline.element(name).get()), buffer);
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

  // The bytes of a stream's packets, one file after the other.
  std::string packetsOf(const std::vector<std::string>& files, const std::string& stream) {
    std::string bytes;
    for (const std::string& file : files) {
      runCommand({"ffmpeg", "-v", "error", "-y", "-i", file, "-map", stream, "-c", "copy", "-f",
                  "data", folder_ / "packets"});
      std::ifstream packets(folder_ / "packets", std::ios::binary);
      bytes.append(std::istreambuf_iterator<char>(packets), {});
    }
    return bytes;
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
                    backend_.httpEncoderChain(config()) + " wait-on-eos=false");
  const auto sink = pipeline.element("sink");
  ASSERT_NO_FATAL_FAILURE(run(pipeline, "encoder"));
  std::ofstream stream(folder_ / "stream", std::ios::binary);
  while (GstSample* const sample = gst_app_sink_pull_sample(GST_APP_SINK(sink.get()))) {
    stream << bytesOf(gst_sample_get_buffer(sample));
    gst_sample_unref(sample);
  }
  stream.close();
  expectPictures({folder_ / "stream"}, ffmpegName(GetParam().codec));
}

TEST_P(WholeChain, SegmentsShowTheFramesAndWhatIsBesideThem) {
  for (const bool complete : {false, true}) {
    SCOPED_TRACE(complete ? "with KLV and sound" : "frames alone");
    const std::string description = backend_.recorderPipeline(config(), 1, complete, complete);
    if (description.empty()) {
      ASSERT_EQ(GetParam().codec, Codec::Av1);  // the one codec that is not recorded
      return;
    }
    // As the header says.
    Pipeline pipeline(
        description + (isBefore120() ? " muxer=mpegtsmux" : "") + " location=" + folder_ / "%d.ts",
        "mysrc");
    media_backend::AudioContinuityGuard guard;
    guard.prime(48000, 1, 20'000'000);
    std::string klv;
    std::string sound;
    ASSERT_NO_FATAL_FAILURE(run(pipeline, "enc", [&](int frame) {
      const GstClockTime pts = static_cast<GstClockTime>(frame) * GST_SECOND / 30;
      if (complete && frame % 5 == 0) {
        const std::string packet = "\x06\x0e\x2b\x34 packet " + std::to_string(frame);
        pushBeside(pipeline, "klvsrc", packet, pts, GST_CLOCK_TIME_NONE);
        klv += packet;
      }
      const auto now = media_backend::AudioContinuityGuard::TimePoint::clock::now();
      for (const auto& packet : guard.makeFallbackUntil(pts, complete ? 10 : 0, now)) {
        const std::string bytes(packet.payload.begin(), packet.payload.end());
        pushBeside(pipeline, "audiosrc", bytes, packet.ptsNs, packet.durationNs);
        sound += bytes;
      }
    }));
    EXPECT_FALSE(fs::exists(folder_ / "2.ts"));
    const std::vector<std::string> files = {folder_ / "0.ts", folder_ / "1.ts"};
    expectPictures(files, "mpegts");
    if (complete) {
      EXPECT_EQ(packetsOf(files, "0:d"), klv);
      EXPECT_EQ(packetsOf(files, "0:a"), sound);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Boards, WholeChain,
                         testing::Values(Case{"NvidiaH264", nvidiaProfile, Codec::H264},
                                         Case{"NvidiaH265", nvidiaProfile, Codec::H265},
                                         Case{"NvidiaAv1", nvidiaProfile, Codec::Av1},
                                         Case{"ImxH264", imxProfile, Codec::H264},
                                         Case{"ImxH265", imxProfile, Codec::H265}),
                         [](const auto& row) { return row.param.name; });

using H26xOverRtp = WholeChain;

TEST_P(H26xOverRtp, PacketsShowTheFrames) {
  const std::string name = GstVideoBackend::codecName(GetParam().codec);
  Pipeline pipeline(kSource + backend_.inputConversionChain(kColorimetry) +
                    backend_.transportEncoderChain(config(), nullptr) +
                    backend_.rtspPayloaderChain(GetParam().codec, 1400) + "! rtp" + name +
                    "depay ! video/x-" + name +
                    ",stream-format=byte-stream ! filesink location=" + folder_ / "stream");
  ASSERT_NO_FATAL_FAILURE(run(pipeline, "encoder"));
  expectPictures({folder_ / "stream"}, ffmpegName(GetParam().codec));
}

INSTANTIATE_TEST_SUITE_P(Boards, H26xOverRtp,
                         testing::Values(Case{"NvidiaH264", nvidiaProfile, Codec::H264},
                                         Case{"ImxH265", imxProfile, Codec::H265}),
                         [](const auto& row) { return row.param.name; });

class Av1OverRtp : public WholeChain {
 protected:
  static GstPadProbeReturn keepBuffer(GstPad*, GstPadProbeInfo* info, gpointer kept) {
    static_cast<std::vector<std::string>*>(kept)->push_back(
        bytesOf(GST_PAD_PROBE_INFO_BUFFER(info)));
    return GST_PAD_PROBE_OK;
  }
};

TEST_P(Av1OverRtp, PacketsCarryTheEncodersStream) {
  for (const unsigned mtu : {200U, 1400U, 65000U}) {
    SCOPED_TRACE(mtu);
    std::vector<std::string> encoded;
    Pipeline pipeline(kSource + backend_.inputConversionChain(kColorimetry) +
                      backend_.transportEncoderChain(config(), nullptr) +
                      backend_.rtspPayloaderChain(GetParam().codec, mtu) +
                      "! appsink name=out sync=false wait-on-eos=false");
    g_autoptr(GstPad) pad = gst_element_get_static_pad(pipeline.element("pay0").get(), "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, keepBuffer, &encoded, nullptr);
    ASSERT_NO_FATAL_FAILURE(run(pipeline, "encoder"));

    Av1Depacketizer depacketizer;
    while (GstSample* const sample = pipeline.pull()) {
      const std::string packet = bytesOf(gst_sample_get_buffer(sample));
      gst_sample_unref(sample);
      EXPECT_LE(packet.size(), mtu);
      depacketizer.take(packet);
    }
    const auto& units = depacketizer.units();
    ASSERT_EQ(units.size(), std::size_t{kFrames});
    EXPECT_TRUE(depacketizer.isComplete());
    std::ofstream stream(folder_ / "stream", std::ios::binary);
    for (std::uint32_t i = 0; i < kFrames; ++i) {
      EXPECT_TRUE(units[i].obus == obusOverRtp(encoded.at(i))) << "temporal unit " << i;
      EXPECT_EQ(units[i].startsSequence, i % 15 == 0) << "temporal unit " << i;
      EXPECT_NEAR(units[i].timestamp - units[0].timestamp, i * 3000, 1) << "temporal unit " << i;
      stream << lowOverhead(units[i].obus);
    }
    stream.close();
    expectPictures({folder_ / "stream"}, "obu");
  }
}

INSTANTIATE_TEST_SUITE_P(Boards, Av1OverRtp,
                         testing::Values(Case{"Nvidia", nvidiaProfile, Codec::Av1}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
