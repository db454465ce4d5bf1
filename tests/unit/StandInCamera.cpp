#include "StandInCamera.h"

namespace {

enum Property { Device = 1, IoMode, DoTimestamp };

constexpr gsize kSize = 64 * 32 * 3 / 2;

void setProperty(GObject*, guint id, const GValue* value, GParamSpec*) {
  if (id == Device) {
    StandInCamera::instance().device = g_value_get_string(value);
  }
}

GstStateChangeReturn changeState(GstElement* source, GstStateChange change) {
  StandInCamera& camera = StandInCamera::instance();
  if (change == GST_STATE_CHANGE_NULL_TO_READY) {
    camera.source = source;
    if (camera.open != nullptr && !camera.open(source)) {
      return GST_STATE_CHANGE_FAILURE;
    }
  }
  return GST_ELEMENT_CLASS(g_type_class_peek(GST_TYPE_ELEMENT))->change_state(source, change);
}

void initClass(gpointer klass, gpointer) {
  auto* const object = G_OBJECT_CLASS(klass);
  object->set_property = setProperty;
  GParamSpec* properties[] = {
      nullptr, g_param_spec_string("device", "", "", nullptr, G_PARAM_WRITABLE),
      g_param_spec_int("io-mode", "", "", 0, 5, 0, G_PARAM_WRITABLE),
      g_param_spec_boolean("do-timestamp", "", "", FALSE, G_PARAM_WRITABLE)};
  g_object_class_install_properties(object, 4, properties);
  auto* const element = GST_ELEMENT_CLASS(klass);
  element->change_state = changeState;
  gst_element_class_set_static_metadata(element, "Stand-in camera", "Source/Video",
                                        "Acts on command", "tests");
}

void initSource(GTypeInstance* instance, gpointer) {
  gst_element_add_pad(GST_ELEMENT(instance), gst_pad_new("src", GST_PAD_SRC));
}

}  // namespace

StandInCamera& StandInCamera::instance() {
  static StandInCamera camera;
  static const bool registered = gst_element_register(
      nullptr, "v4l2src", GST_RANK_NONE,
      g_type_register_static_simple(GST_TYPE_ELEMENT, "StandInSource", sizeof(GstElementClass),
                                    initClass, sizeof(GstElement), initSource, GTypeFlags(0)));
  g_assert(registered);
  return camera;
}

void StandInCamera::show(int number) const {
  g_autoptr(GstPad) pad = gst_element_get_static_pad(source, "src");
  if (!gst_pad_has_current_caps(pad)) {
    g_autoptr(GstCaps) caps =
        gst_caps_from_string("video/x-raw,format=NV12,width=64,height=32,framerate=240/1");
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(pad, gst_event_new_stream_start("camera"));
    gst_pad_push_event(pad, gst_event_new_caps(caps));
    gst_pad_push_event(pad, gst_event_new_segment(&segment));
  }
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, kSize, nullptr);
  gst_buffer_memset(buffer, 0, static_cast<guint8>(number), kSize);
  GST_BUFFER_PTS(buffer) = gst_util_uint64_scale_int(GST_SECOND, number, 30);
  GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
  gst_pad_push(pad, buffer);
  // A query stays behind the buffers of its stream, and its answer comes from the stream's end.
  GstQuery* const query = gst_query_new_allocation(nullptr, FALSE);
  gst_pad_peer_query(pad, query);
  gst_query_unref(query);
}
