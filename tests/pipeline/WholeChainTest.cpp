// Exported camera frames through the library's descriptions on the simulated boards, and back to
// pictures with ffmpeg.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

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

// A running pipeline that takes camera frames one by one.
class Chain {
 public:
  // Counts what comes out of the element named `encoder`.
  Chain(const std::string& description, const char* source, const char* encoder) {
    g_autoptr(GError) error = nullptr;
    pipeline_ = gst_parse_launch(description.c_str(), &error);
    if (error != nullptr) {
      throw std::runtime_error(error->message);
    }
    gst_object_ref_sink(pipeline_);
    source_ = gst_bin_get_by_name(GST_BIN(pipeline_), source);
    g_autoptr(GstElement) element = gst_bin_get_by_name(GST_BIN(pipeline_), encoder);
    g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, countBuffer, &encoded_, nullptr);
  }
  ~Chain() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(source_);
    gst_object_unref(pipeline_);
  }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  GstAppSrc* source() const { return GST_APP_SRC(source_); }

  void setLocation(const char* element, const std::string& path) {
    g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline_), element);
    g_object_set(sink, "location", path.c_str(), nullptr);
  }

  void play() { gst_element_set_state(pipeline_, GST_STATE_PLAYING); }

  // Pushes frame `number` and waits until it is encoded: the recorder drops what comes too soon.
  // False after an error on the bus.
  bool push(GstBuffer* buffer, int number) {
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(number) * GST_SECOND / 30;
    GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
    gst_app_src_push_buffer(source(), buffer);
    while (encoded_ <= number) {
      if (waitFor(GST_MESSAGE_ERROR, GST_MSECOND)) {
        return false;
      }
    }
    return true;
  }

  bool finish() {
    gst_app_src_end_of_stream(source());
    return waitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR),
                   GST_CLOCK_TIME_NONE) &&
           error_.empty();
  }

  const std::string& error() const { return error_; }

 private:
  static GstPadProbeReturn countBuffer(GstPad*, GstPadProbeInfo*, gpointer count) {
    ++*static_cast<std::atomic<int>*>(count);
    return GST_PAD_PROBE_OK;
  }

  bool waitFor(GstMessageType types, GstClockTime timeout) {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);
    g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(bus, timeout, types);
    if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
      g_autoptr(GError) error = nullptr;
      g_autofree gchar* debug = nullptr;
      gst_message_parse_error(message, &error, &debug);
      error_ = std::string(error->message) + " (" + (debug != nullptr ? debug : "") + ")";
    }
    return message != nullptr;
  }

  GstElement* pipeline_ = nullptr;
  GstElement* source_ = nullptr;
  std::atomic<int> encoded_ = 0;
  std::string error_;
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
      ASSERT_TRUE(chain.push(buffer, i)) << chain.error();
    }
    ASSERT_TRUE(chain.finish()) << chain.error();
    for (const auto& frame : sent) {
      EXPECT_TRUE(frame.expired());
    }
  }

  // Decodes files one after the other; they hold exactly the pictures that were sent.
  void expectPictures(const std::vector<std::string>& files,
                      const std::vector<std::string>& inputOptions) {
    std::string nv12;
    for (const std::string& file : files) {
      std::vector<std::string> command = {"ffmpeg", "-v", "error", "-y"};
      command.insert(command.end(), inputOptions.begin(), inputOptions.end());
      for (const char* argument : {"-i", file.c_str(), "-map", "0:v", "-fps_mode", "passthrough",
                                   "-f", "rawvideo", "-pix_fmt", "nv12"}) {
        command.emplace_back(argument);
      }
      command.push_back(folder_ / "decoded.nv12");
      runCommand(command);
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
  const struct {
    Codec codec;
    const char* caps;
    const char* format;
  } outputs[] = {
      {Codec::H264, "! video/x-h264,stream-format=byte-stream,alignment=au ", "h264"},
      {Codec::H265, "! video/x-h265,stream-format=byte-stream,alignment=au ", "hevc"},
      {Codec::Av1, "", "obu"},
  };
  const auto& output = *std::find_if(std::begin(outputs), std::end(outputs),
                                     [](const auto& row) { return row.codec == GetParam().codec; });
  Chain chain(kSource + backend_.inputConversionChain("bt709") +
                  backend_.transportEncoderChain(config(), "-1") + output.caps +
                  "! filesink name=out",
              "src", "encoder");
  chain.setLocation("out", folder_ / "stream");
  ASSERT_NO_FATAL_FAILURE(run(chain));
  expectPictures({folder_ / "stream"}, {"-f", output.format});
}

TEST_P(WholeChain, SegmentsShowTheFrames) {
  const std::string description = backend_.recorderPipeline(config(), 1, false, false);
  if (description.empty()) {
    ASSERT_EQ(GetParam().codec, Codec::Av1);  // the one codec that is not recorded
    return;
  }
  Chain chain(description, "mysrc", "enc");
  chain.setLocation("sink", folder_ / "%05d.ts");
  ASSERT_NO_FATAL_FAILURE(run(chain));
  std::vector<std::string> segments;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder_.path())) {
    segments.push_back(entry.path().string());
  }
  std::sort(segments.begin(), segments.end());
  EXPECT_EQ(segments.size(), 2U);
  expectPictures(segments, {});
}

// The memory feature in the caps is what makes a board read its own frames.
TEST_P(WholeChain, FramesInTheWrongKindOfMemoryFail) {
  Chain chain(kSource + backend_.inputConversionChain(nullptr) +
                  backend_.transportEncoderChain(config(), nullptr) + "! fakesink",
              "src", "encoder");
  const bool nvmm = backend_.inputConversionChain(nullptr).find("NVMM") != std::string::npos;
  Profile other = nvmm ? imxProfile() : nvidiaProfile();
  ASSERT_TRUE(
      GstVideoBackend(other).setInputCaps(chain.source(), kWidth, kHeight, 30, true, nullptr));
  chain.play();
  const auto frame = lumora::ExportedFrame::fromPicture(*movingPicture(kWidth, kHeight, 0));
  EXPECT_FALSE(chain.push(backend_.wrapFrame(frame->handle(), frame), 0));
  EXPECT_NE(chain.error(), "");
}

INSTANTIATE_TEST_SUITE_P(Boards, WholeChain,
                         testing::Values(Case{"NvidiaH264", nvidiaProfile, Codec::H264},
                                         Case{"NvidiaH265", nvidiaProfile, Codec::H265},
                                         Case{"NvidiaAv1", nvidiaProfile, Codec::Av1},
                                         Case{"ImxH264", imxProfile, Codec::H264},
                                         Case{"ImxH265", imxProfile, Codec::H265}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
