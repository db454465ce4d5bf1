// A recorder whose elements fail or stop answering at random moments: it says so, lets every frame
// go, and the next one works.

#include <chrono>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "Torture.h"
#include "audio/OpusFile.h"
#include "base/StationError.h"
#include "record/Recorder.h"
#include "support/Command.h"
#include "support/InterposedParse.h"
#include "support/MovingPicture.h"
#include "support/ProcessState.h"
#include "support/TempFolder.h"

namespace {

using media_backend::GstVideoBackend;

constexpr unsigned kFps = 30;
const char* const kElements[] = {"mysrc", "klvsrc", "enc", "vparse", "sink"};

// The pad that an element's buffers leave through, or the segment sink's own for video.
GstPad* padOf(GstElement* element) {
  GstPad* const pad = gst_element_get_static_pad(element, "src");
  return pad != nullptr ? pad : gst_element_get_static_pad(element, "video");
}

GstPadProbeReturn fail(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*data*/) {
  gst_clear_buffer(reinterpret_cast<GstBuffer**>(&info->data));
  GST_PAD_PROBE_INFO_FLOW_RETURN(info) = GST_FLOW_ERROR;
  return GST_PAD_PROBE_HANDLED;
}

// Makes the recorder's element fail: by a message, or by its next buffer.
void fault(const char* name, bool byMessage) {
  g_autoptr(GstElement) element = gst_bin_get_by_name(GST_BIN(g_pipeline), name);
  ASSERT_NE(element, nullptr) << name;
  if (byMessage) {
    GST_ELEMENT_ERROR(element, STREAM, FAILED, ("hardware gone"), ("on command"));
    return;
  }
  g_autoptr(GstPad) pad = padOf(element);
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, fail, nullptr, nullptr);
}

TEST(FailingRecorder, SaysSoAndLetsEveryFrameGo) {
  std::string error;
  ASSERT_TRUE(simulated_board::registerElements(nullptr, "imx", error)) << error;
  const GstVideoBackend& backend = GstVideoBackend::instance();
  const auto picture = movingPicture(64, 48, 1);
  std::mt19937 chance(static_cast<unsigned>(tortureSeed()));
  const unsigned long times = 10 * tortureScale();
  std::ptrdiff_t descriptors = 0;
  std::ptrdiff_t threads = 0;
  for (unsigned long i = 0; i < times; ++i) {
    const TempFolder folder;
    const char* const name = kElements[chance() % std::size(kElements)];
    const bool byMessage = chance() % 2 == 0;
    const unsigned long at = chance() % 40;
    SCOPED_TRACE("seed " + std::to_string(tortureSeed()) + ", recorder " + std::to_string(i) +
                 ": " + name + (byMessage ? " posts an error" : " fails") + " at frame " +
                 std::to_string(at));
    std::vector<std::weak_ptr<lumora::ExportedFrame>> frames;
    {
      GstVideoBackend::EncoderConfig config;
      config.codec = GstVideoBackend::Codec::H264;
      station::Recorder recorder(backend,
                                 {config, 1, true, false, {64, 48, {kFps, 1}, ""}, folder.path()});
      recorder.setStart(std::chrono::system_clock::now());
      const auto record = [&] {
        for (unsigned long n = 0; n < 60; ++n) {
          if (n == at) {
            fault(name, byMessage);
          }
          auto frame = lumora::ExportedFrame::fromPicture(*picture);
          frames.emplace_back(frame);
          recorder.push(std::move(frame), n, {1, 2, 3, 4});
          recorder.throwOnError();
          std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        recorder.finish();
      };
      try {
        record();
        ADD_FAILURE() << "nobody noticed";
      } catch (const station::StationError& failure) {
        EXPECT_EQ(failure.code(), station::ExitCode::Pipeline) << failure.what();
      }
    }
    for (const auto& frame : frames) {
      EXPECT_TRUE(frame.expired());
    }
    if (i == 1) {
      descriptors = openDescriptors();
      threads = runningThreads();
    }
  }
  EXPECT_TRUE(descriptorsSettle(descriptors)) << openDescriptors() << ", not " << descriptors;
  EXPECT_TRUE(threadsSettle(threads + 8)) << runningThreads() << " threads, not " << threads;
  tortureRow("an element of the recorder fails at a random moment", times,
             std::to_string(tortureSeed()), "the recording's rest; every frame is let go");
}

GstPadProbeReturn block(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*data*/) {
  return GST_PAD_PROBE_OK;
}

gulong blockInput(const char* name) {
  g_autoptr(GstElement) element = gst_bin_get_by_name(GST_BIN(g_pipeline), name);
  g_autoptr(GstPad) input = gst_element_get_static_pad(element, "sink");
  return gst_pad_add_probe(input, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM, block, nullptr, nullptr);
}

// The reader reports neither an end nor an error.
TEST(FailingRecorder, RefusesAudioThatItsReaderHoldsBack) {
  const TempFolder folder;
  runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=sample_rate=48000:duration=1",
              "-c:a", "libopus", "-ac", "1", folder / "sound.ogg"});
  EXPECT_FALSE(station::readOpusFile(folder / "sound.ogg").empty());
  g_onParsed = [] { blockInput("packets"); };
  EXPECT_THROW(station::readOpusFile(folder / "sound.ogg"), station::StationError);
  g_onParsed = nullptr;
}

// The encoder takes nothing while 6 MiB of KLV arrive: the recorder keeps 4 of them, and says so.
TEST(FailingRecorder, BoundsWhatWaitsForTheEncoder) {
  std::string error;
  simulated_board::registerElements(nullptr, "imx", error);
  constexpr unsigned long kPackets = 400;
  const auto picture = movingPicture(64, 48, 1);
  const TempFolder folder;
  GstVideoBackend::EncoderConfig config;
  config.codec = GstVideoBackend::Codec::H264;
  station::Recorder recorder(GstVideoBackend::instance(),
                             {config, 60, true, false, {64, 48, {kFps, 1}, ""}, folder.path()});
  const gulong blocked = blockInput("enc");
  for (unsigned long n = 0; n < kPackets; ++n) {
    recorder.push(lumora::ExportedFrame::fromPicture(*picture), n,
                  std::vector<std::uint8_t>(16384, 1));
  }
  g_autoptr(GstElement) encoder = gst_bin_get_by_name(GST_BIN(g_pipeline), "enc");
  g_autoptr(GstPad) input = gst_element_get_static_pad(encoder, "sink");
  gst_pad_remove_probe(input, blocked);
  recorder.finish();
  const station::Recorder::Statistics statistics = recorder.statistics();
  EXPECT_FALSE(statistics.isComplete());
  EXPECT_EQ(statistics.klv.pushed, kPackets);
  EXPECT_GT(statistics.klv.written, kPackets / 2);
  EXPECT_LT(statistics.klv.written, kPackets * 3 / 4);
  EXPECT_EQ(statistics.frames + statistics.dropped, kPackets);
}

}  // namespace
