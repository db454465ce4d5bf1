// Feeds camera frames to the encoder and checks that it gets them in the memory in which the camera
// left them.
//
// Usage: zero-copy [OUTPUT]
// Encodes 30 frames in H.264 into the file OUTPUT; without it the frames end in front of the
// encoder.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gst/allocators/gstdmabuf.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>
#include <sys/stat.h>

using lumora::ExportedFrame;
using media_backend::GstVideoBackend;

namespace {

constexpr unsigned kWidth = 640;
constexpr unsigned kHeight = 360;
constexpr int kFps = 30;
constexpr int kFrames = 30;

// Stands for the camera: on a board, the host's picture library exports what the sensor wrote.
std::shared_ptr<ExportedFrame> nextFrame(int number) {
  const std::vector<std::uint8_t> pixels(kWidth * kHeight * 3 / 2,
                                         static_cast<std::uint8_t>(number * 8));
  return ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(pixels.data(), kWidth, kHeight, kWidth));
}

// Whether the memory is the frame's own: the same file behind both descriptors (i.MX), or the very
// block that the picture library has prepared (NVIDIA).
bool isFramesOwn(GstMemory* memory, const lumora::FrameExportHandle& handle) {
  if (gst_is_dmabuf_memory(memory)) {
    struct stat ours {};
    struct stat theirs {};
    return fstat(gst_dmabuf_memory_get_fd(memory), &ours) == 0 && fstat(handle.fd, &theirs) == 0 &&
           ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
  }
  lumora::StreamingFrameMemory block;
  GstMapInfo map;
  if (!lumora::prepareStreamingFrameMemory(handle, block) ||
      !gst_memory_map(memory, &map, GST_MAP_READ)) {
    return false;
  }
  const bool same = map.data == block.data && map.size == block.size;
  gst_memory_unmap(memory, &map);
  return same;
}

// The memory that is on its way, and what has come to the encoder.
struct Delivery {
  std::mutex mutex;
  std::condition_variable changed;
  const GstMemory* onTheWay = nullptr;
  int arrived = 0;  // buffers in the memory that was on its way
  int buffers = 0;
};

GstPadProbeReturn onArrival(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data) {
  auto* const delivery = static_cast<Delivery*>(data);
  GstMemory* const memory = gst_buffer_peek_memory(GST_PAD_PROBE_INFO_BUFFER(info), 0);
  const std::lock_guard<std::mutex> lock(delivery->mutex);
  delivery->arrived += memory == delivery->onTheWay ? 1 : 0;
  ++delivery->buffers;
  delivery->changed.notify_one();
  return GST_PAD_PROBE_OK;
}

struct Counts {
  int framesOwn = 0;             // buffers whose memory is the frame's own
  std::atomic<int> released{0};  // frames that GStreamer has let go
};

// Pushes every frame; false if one cannot be wrapped or pushed. Each has to arrive before the next,
// so that no memory made on the way can have the address of one that is gone.
bool pushFrames(const GstVideoBackend& backend, GstAppSrc* source, Delivery& delivery,
                Counts& counts) {
  for (int i = 0; i < kFrames; ++i) {
    const std::shared_ptr<ExportedFrame> frame = nextFrame(i);
    // The frame lives until GStreamer has freed the buffer or its memory; only then may the camera
    // write there again.
    const std::shared_ptr<void> keepAlive(frame.get(),
                                          [frame, &counts](void*) { ++counts.released; });
    GstBuffer* const buffer = backend.wrapFrame(frame->handle(), keepAlive);
    if (buffer == nullptr) {
      return false;  // not the layout of an NV12 frame
    }
    GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(i, GST_SECOND, kFps);
    GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale(1, GST_SECOND, kFps);
    GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
    counts.framesOwn += isFramesOwn(memory, frame->handle()) ? 1 : 0;
    {
      const std::lock_guard<std::mutex> lock(delivery.mutex);
      delivery.onTheWay = memory;
    }
    if (gst_app_src_push_buffer(source, buffer) != GST_FLOW_OK) {  // takes the buffer
      return false;
    }
    std::unique_lock<std::mutex> lock(delivery.mutex);
    delivery.changed.wait_for(lock, std::chrono::seconds(5),
                              [&] { return delivery.buffers == i + 1; });
  }
  return true;
}

// Waits until everything that was pushed is through, and says what failed if anything did.
void finish(GstElement* pipeline) {
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
  g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
      bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  if (message == nullptr) {
    std::fprintf(stderr, "the pipeline does not end\n");
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    g_autoptr(GError) error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::fprintf(stderr, "the pipeline failed: %s\n", error->message);
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
}

std::string describe(const GstVideoBackend& backend, const char* output) {
  std::string text = "appsrc name=camera format=time max-buffers=2 block=true" +
                     backend.inputConversionChain(nullptr);
  if (output == nullptr) {
    return text + "! fakesink name=encoder";
  }
  GstVideoBackend::EncoderConfig config;
  config.codec = GstVideoBackend::Codec::H264;
  return text + backend.transportEncoderChain(config, "-1") + "! filesink name=file";
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  const GstVideoBackend& backend = GstVideoBackend::instance();
  const char* const output = argc > 1 ? argv[1] : nullptr;
  if (!backend.supports(GstVideoBackend::Codec::H264)) {
    std::fprintf(stderr, "this machine has no H.264 encoder that the library knows\n");
    return 1;
  }

  g_autoptr(GError) error = nullptr;
  g_autoptr(GstElement) pipeline = gst_parse_launch(describe(backend, output).c_str(), &error);
  if (error != nullptr) {
    std::fprintf(stderr, "cannot build the pipeline: %s\n", error->message);
    return 1;
  }
  g_autoptr(GstElement) file = gst_bin_get_by_name(GST_BIN(pipeline), "file");
  if (file != nullptr) {
    g_object_set(file, "location", output, nullptr);
  }
  g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(pipeline), "camera");
  backend.setInputCaps(GST_APP_SRC(source), kWidth, kHeight, kFps, true, nullptr);
  Delivery delivery;
  g_autoptr(GstElement) encoder = gst_bin_get_by_name(GST_BIN(pipeline), "encoder");
  g_autoptr(GstPad) input = gst_element_get_static_pad(encoder, "sink");
  gst_pad_add_probe(input, GST_PAD_PROBE_TYPE_BUFFER, onArrival, &delivery, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);

  Counts counts;
  if (!pushFrames(backend, GST_APP_SRC(source), delivery, counts)) {
    std::fprintf(stderr, "a frame could not be wrapped or pushed\n");
  }
  gst_app_src_end_of_stream(GST_APP_SRC(source));
  finish(pipeline);

  std::printf("%s, %d frames of %u x %u\n", backend.name(), kFrames, kWidth, kHeight);
  std::printf("  in the memory that the camera wrote: %d\n", counts.framesOwn);
  std::printf("  in that memory at the encoder:       %d\n", delivery.arrived);
  std::printf("  given back to the camera:            %d\n", counts.released.load());
  const bool proven = counts.framesOwn == kFrames && delivery.arrived == kFrames &&
                      counts.released.load() == kFrames;
  std::printf("%s\n", proven ? "nothing was copied" : "FRAMES WERE COPIED OR LOST");
  return proven ? 0 : 1;
}
