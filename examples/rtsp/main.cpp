// Serves a camera at rtsp://127.0.0.1:PORT/camera: an application source, three chains of the
// library, and every exported frame wrapped into a buffer.
//
// Usage: rtsp [PORT]   8554 by default
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gst/app/gstappsrc.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>

using media_backend::GstVideoBackend;

constexpr unsigned kWidth = 640;
constexpr unsigned kHeight = 360;
constexpr int kFps = 30;

// Stands for the camera: on a board, the host's picture library exports what the sensor wrote.
static std::shared_ptr<lumora::ExportedFrame> nextFrame(guint64 number) {
  const std::vector<std::uint8_t> pixels(kWidth * kHeight * 3 / 2,
                                         static_cast<std::uint8_t>(number));
  return lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(pixels.data(), kWidth, kHeight, kWidth));
}

// The stream takes frames at the pace of their timestamps. A frame lives until GStreamer has freed
// its buffer.
static void onNeedData(GstAppSrc* source, guint /*bytes*/, guint64* number) {
  const auto frame = nextFrame(*number);
  GstBuffer* const buffer = GstVideoBackend::instance().wrapFrame(frame->handle(), frame);
  if (buffer == nullptr) {
    gst_app_src_end_of_stream(source);
    return;
  }
  GST_BUFFER_PTS(buffer) = gst_util_uint64_scale((*number)++, GST_SECOND, kFps);
  GST_BUFFER_DURATION(buffer) = GST_SECOND / kFps;
  gst_app_src_push_buffer(source, buffer);  // takes the buffer
}

static void onConfigure(GstRTSPMediaFactory* /*factory*/, GstRTSPMedia* media,
                        gpointer /*unused*/) {
  g_autoptr(GstElement) pipeline = gst_rtsp_media_get_element(media);
  g_autoptr(GstElement) camera = gst_bin_get_by_name_recurse_up(GST_BIN(pipeline), "camera");
  GstVideoBackend::instance().setInputCaps(GST_APP_SRC(camera), kWidth, kHeight, kFps, true,
                                           nullptr);
  const auto release = [](gpointer number, GClosure* /*closure*/) { g_free(number); };
  g_signal_connect_data(camera, "need-data", G_CALLBACK(onNeedData), g_new0(guint64, 1), release,
                        static_cast<GConnectFlags>(0));
}

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  const GstVideoBackend& backend = GstVideoBackend::instance();
  GstVideoBackend::EncoderConfig config;
  config.codec = GstVideoBackend::Codec::H264;
  const std::string encoder = backend.transportEncoderChain(config, "-1");
  if (encoder.empty()) {
    std::fprintf(stderr, "this machine has no H.264 encoder that the library knows\n");
    return 1;
  }
  const std::string description = "( appsrc name=camera format=time" +
                                  backend.inputConversionChain(nullptr) + encoder +
                                  backend.rtspPayloaderChain(config.codec, 1400) + ")";

  g_autoptr(GstRTSPServer) server = gst_rtsp_server_new();
  const char* const port = argc > 1 ? argv[1] : "8554";
  g_object_set(server, "address", "127.0.0.1", "service", port, nullptr);
  GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_launch(factory, description.c_str());
  gst_rtsp_media_factory_set_shared(factory, TRUE);
  g_signal_connect(factory, "media-configure", G_CALLBACK(onConfigure), nullptr);
  g_autoptr(GstRTSPMountPoints) paths = gst_rtsp_server_get_mount_points(server);
  gst_rtsp_mount_points_add_factory(paths, "/camera", factory);  // takes the factory
  if (gst_rtsp_server_attach(server, nullptr) == 0) {
    std::fprintf(stderr, "port %s is in use\n", port);
    return 1;
  }
  std::printf("rtsp://127.0.0.1:%s/camera\n", port);
  std::fflush(stdout);
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  g_main_loop_run(loop);
}
