// Exported camera frames through the library's descriptions on the simulated boards, and back to
// pictures with ffmpeg.

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "GstPtr.h"
#include "support/Av1Depacketizer.h"
#include "support/Command.h"
#include "support/MovingPicture.h"
#include "support/Profiles.h"
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

// A pipeline that takes camera frames one by one.
class Chain {
 public:
  // Counts what comes out of the element named `encoder`.
  Chain(const std::string& description, const char* source, const char* encoder) {
    pipeline_.reset(
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, nullptr));
    if (pipeline_ == nullptr) {
      throw std::runtime_error("cannot parse " + description);
    }
    source_ = element(source);
    g_autoptr(GstPad) pad = gst_element_get_static_pad(element(encoder).get(), "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, countBuffer, &encoded_, nullptr);
  }
  ~Chain() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  media_backend::GstPtr<GstElement> element(const char* name) const {
    return media_backend::GstPtr<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
  }

  GstAppSrc* source() const { return GST_APP_SRC(source_.get()); }

  void setLocation(const char* sink, const std::string& path) {
    g_object_set(element(sink).get(), "location", path.c_str(), nullptr);
  }

  void play() { gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING); }

  // Pushes frame `number` and waits until it is encoded: the recorder drops what comes too soon.
  void push(GstBuffer* buffer, int number) {
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(number) * GST_SECOND / 30;
    GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
    gst_app_src_push_buffer(source(), buffer);
    while (encoded_ <= number) {
      waitFor(GST_MESSAGE_ERROR, GST_MSECOND);
    }
  }

  void finish() {
    gst_app_src_end_of_stream(source());
    waitFor(GST_MESSAGE_EOS, GST_CLOCK_TIME_NONE);
  }

 private:
  static GstPadProbeReturn countBuffer(GstPad*, GstPadProbeInfo*, gpointer count) {
    ++*static_cast<std::atomic<int>*>(count);
    return GST_PAD_PROBE_OK;
  }

  // Throws if an error comes.
  void waitFor(GstMessageType type, GstClockTime timeout) {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_.get());
    g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
        bus, timeout, static_cast<GstMessageType>(type | GST_MESSAGE_ERROR));
    if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
      g_autoptr(GError) error = nullptr;
      gst_message_parse_error(message, &error, nullptr);
      throw std::runtime_error(error->message);
    }
  }

  media_backend::GstPtr<GstElement> pipeline_;
  media_backend::GstPtr<GstElement> source_;
  std::atomic<int> encoded_ = 0;
};

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

  EncoderConfig config() const { return {GetParam().codec, 4000000, 1, 1, 15, 15}; }

  // Sends kFrames pictures through the chain to its end and sees every one let go.
  void run(Chain& chain) {
    ASSERT_TRUE(backend_.setInputCaps(chain.source(), kWidth, kHeight, 30, true, nullptr));
    chain.play();
    std::vector<std::weak_ptr<lumora::ExportedFrame>> sent;
    for (int i = 0; i < kFrames; ++i) {
      auto frame = lumora::ExportedFrame::fromPicture(*movingPicture(kWidth, kHeight, i));
      ASSERT_NE(frame, nullptr);
      ASSERT_GT(frame->handle().planes[0].stride, kWidth);
      sent.push_back(frame);
      GstBuffer* const buffer = backend_.wrapFrame(frame->handle(), frame);
      ASSERT_NE(buffer, nullptr);
      frame.reset();
      chain.push(buffer, i);
    }
    chain.finish();
    for (const auto& frame : sent) {
      EXPECT_TRUE(frame.expired());
    }
  }

  // Decodes files one after the other; they hold exactly the pictures that were sent.
  void expectPictures(const std::vector<std::string>& files, const std::string& format) {
    std::string nv12;
    for (const std::string& file : files) {
      runCommand({"ffmpeg", "-v", "error", "-y", "-f", format, "-i", file, "-map", "0:v",
                  "-fps_mode", "passthrough", "-f", "rawvideo", "-pix_fmt", "nv12",
                  folder_ / "decoded.nv12"});
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
};

const std::string kSource = "appsrc name=src is-live=true block=false format=time ";

TEST_P(WholeChain, TransportStreamShowsTheFrames) {
  const std::string name = GstVideoBackend::codecName(GetParam().codec);
  const bool av1 = GetParam().codec == Codec::Av1;
  const std::string caps =
      av1 ? "" : "! video/x-" + name + ",stream-format=byte-stream,alignment=au ";
  Chain chain(kSource + backend_.inputConversionChain("bt709") +
                  backend_.transportEncoderChain(config(), "-1") + caps + "! filesink name=out",
              "src", "encoder");
  chain.setLocation("out", folder_ / "stream");
  ASSERT_NO_FATAL_FAILURE(run(chain));
  expectPictures({folder_ / "stream"}, av1 ? "obu" : name == "h265" ? "hevc" : name);
}

TEST_P(WholeChain, SegmentsShowTheFrames) {
  const std::string description = backend_.recorderPipeline(config(), 1, false, false);
  if (description.empty()) {
    ASSERT_EQ(GetParam().codec, Codec::Av1);  // the one codec that is not recorded
    return;
  }
  Chain chain(description, "mysrc", "enc");
  chain.setLocation("sink", folder_ / "%d.ts");
  ASSERT_NO_FATAL_FAILURE(run(chain));
  EXPECT_FALSE(fs::exists(folder_ / "2.ts"));
  expectPictures({folder_ / "0.ts", folder_ / "1.ts"}, "mpegts");
}

INSTANTIATE_TEST_SUITE_P(Boards, WholeChain,
                         testing::Values(Case{"NvidiaH264", nvidiaProfile, Codec::H264},
                                         Case{"NvidiaH265", nvidiaProfile, Codec::H265},
                                         Case{"NvidiaAv1", nvidiaProfile, Codec::Av1},
                                         Case{"ImxH264", imxProfile, Codec::H264},
                                         Case{"ImxH265", imxProfile, Codec::H265}),
                         [](const auto& row) { return row.param.name; });

class Av1OverRtp : public WholeChain {
 protected:
  static std::string content(GstBuffer* buffer) {
    std::string bytes(gst_buffer_get_size(buffer), '\0');
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
  }

  static GstPadProbeReturn keepBuffer(GstPad*, GstPadProbeInfo* info, gpointer kept) {
    static_cast<std::vector<std::string>*>(kept)->push_back(
        content(GST_PAD_PROBE_INFO_BUFFER(info)));
    return GST_PAD_PROBE_OK;
  }
};

TEST_P(Av1OverRtp, PacketsCarryTheEncodersStream) {
  for (const unsigned mtu : {200U, 1400U, 65000U}) {
    SCOPED_TRACE(mtu);
    std::vector<std::string> encoded;
    Chain chain(kSource + backend_.inputConversionChain("bt709") +
                    backend_.transportEncoderChain(config(), nullptr) +
                    backend_.rtspPayloaderChain(GetParam().codec, mtu) +
                    "! appsink name=out sync=false wait-on-eos=false",
                "src", "encoder");
    g_autoptr(GstPad) pad = gst_element_get_static_pad(chain.element("pay0").get(), "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, keepBuffer, &encoded, nullptr);
    ASSERT_NO_FATAL_FAILURE(run(chain));

    Av1Depacketizer depacketizer;
    const auto out = chain.element("out");
    while (GstSample* const sample = gst_app_sink_pull_sample(GST_APP_SINK(out.get()))) {
      const std::string packet = content(gst_sample_get_buffer(sample));
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
