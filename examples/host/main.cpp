// What a host does before its first frame: looks at the board and builds a recorder for it.
#include <cstdio>
#include <string>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

int main(int argc, char** argv) {
  gst_init(&argc, &argv);  // before the first instance(), which looks for the board's elements
  const GstVideoBackend& backend = GstVideoBackend::instance();
  std::printf("platform: %s\n", backend.name());
  for (const Codec codec : {Codec::H264, Codec::H265, Codec::Av1, Codec::Mjpeg}) {
    std::printf("%s: %s\n", GstVideoBackend::codecName(codec),
                backend.supports(codec) ? "yes" : "no");
  }

  GstVideoBackend::EncoderConfig config;
  config.codec = backend.supports(Codec::H265) ? Codec::H265 : Codec::H264;
  const std::string description = backend.recorderPipeline(config, 60, true, false);
  if (description.empty()) {
    std::printf("this machine has no encoder to record with\n");
    return 0;
  }

  g_autoptr(GError) error = nullptr;
  g_autoptr(GstElement) recorder = gst_parse_launch(description.c_str(), &error);
  // Before GStreamer 1.20, appsrc misses the property "max-buffers", which is no harm.
  if (error != nullptr &&
      !g_error_matches(error, GST_PARSE_ERROR, GST_PARSE_ERROR_NO_SUCH_PROPERTY)) {
    std::fprintf(stderr, "cannot build the recorder: %s\n", error->message);
    return 1;
  }
  g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(recorder), "mysrc");
  backend.setInputCaps(GST_APP_SRC(source), 1280, 720, 30, true, nullptr);
  g_autoptr(GstCaps) caps = gst_app_src_get_caps(GST_APP_SRC(source));
  g_autofree gchar* frames = gst_caps_to_string(caps);
  std::printf("recorder for %s, takes %s\n", GstVideoBackend::codecName(config.codec), frames);
  return 0;
}
