#include "StandInCamera.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include <gst/base/gstpushsrc.h>
#include <gst/video/video.h>

// The element. Not in an unnamed namespace: the camera names it its friend.
struct StandInSource {
  GstPushSrc base;
  bool delivered;  // a frame is on its way

  static GType type();
  static void initClass(gpointer klass, gpointer);
  static void setProperty(GObject* object, guint id, const GValue* value, GParamSpec*);
  static void getProperty(GObject*, guint, GValue*, GParamSpec*) {}
  static GstCaps* getCaps(GstBaseSrc*, GstCaps* filter);
  static GstStateChangeReturn changeState(GstElement* element, GstStateChange change);
  static bool open(GstElement* element);
  static gboolean unlock(GstBaseSrc*) { return setFlushing(true); }
  static gboolean unlockStop(GstBaseSrc*) { return setFlushing(false); }
  static gboolean setFlushing(bool flushing);
  static GstFlowReturn create(GstPushSrc* source, GstBuffer** buffer);
};

namespace {

enum Property { Device = 1, IoMode };

// A query stays behind the buffers of its stream, and its answer comes from the stream's end.
void waitForDelivery(GstBaseSrc* source) {
  GstQuery* const query = gst_query_new_allocation(nullptr, FALSE);
  gst_pad_peer_query(GST_BASE_SRC_PAD(source), query);
  gst_query_unref(query);
}

}  // namespace

GType StandInSource::type() {
  static const GType type = [] {
    GTypeInfo info = {};
    info.class_size = sizeof(GstPushSrcClass);
    info.class_init = initClass;
    info.instance_size = sizeof(StandInSource);
    info.instance_init = [](GTypeInstance* instance, gpointer) {
      gst_base_src_set_live(GST_BASE_SRC(instance), TRUE);
      gst_base_src_set_format(GST_BASE_SRC(instance), GST_FORMAT_TIME);
    };
    return g_type_register_static(GST_TYPE_PUSH_SRC, "StandInSource", &info, GTypeFlags(0));
  }();
  return type;
}

void StandInSource::initClass(gpointer klass, gpointer) {
  auto* const object = G_OBJECT_CLASS(klass);
  object->set_property = setProperty;
  object->get_property = getProperty;
  const auto flags = GParamFlags(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(object, Device,
                                  g_param_spec_string("device", "", "", nullptr, flags));
  g_object_class_install_property(object, IoMode,
                                  g_param_spec_int("io-mode", "", "", 0, 5, 0, flags));
  auto* const element = GST_ELEMENT_CLASS(klass);
  element->change_state = changeState;
  gst_element_class_set_static_metadata(element, "Stand-in camera", "Source/Video",
                                        "Acts on command", "tests");
  g_autoptr(GstCaps) any = gst_caps_new_any();
  gst_element_class_add_pad_template(element,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, any));
  auto* const source = GST_BASE_SRC_CLASS(klass);
  source->get_caps = getCaps;
  source->unlock = unlock;
  source->unlock_stop = unlockStop;
  GST_PUSH_SRC_CLASS(klass)->create = create;
}

void StandInSource::setProperty(GObject*, guint id, const GValue* value, GParamSpec*) {
  if (id == Device) {
    StandInCamera& camera = StandInCamera::instance();
    const std::lock_guard<std::mutex> lock(camera.mutex_);
    camera.device_ = g_value_get_string(value);
  }
}

GstCaps* StandInSource::getCaps(GstBaseSrc*, GstCaps* filter) {
  g_autoptr(GstCaps) caps = gst_caps_from_string(
      StandInCamera::instance().locked(StandInCamera::instance().caps_).c_str());
  return filter == nullptr ? gst_caps_ref(caps)
                           : gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
}

GstStateChangeReturn StandInSource::changeState(GstElement* element, GstStateChange change) {
  if (change == GST_STATE_CHANGE_NULL_TO_READY && !open(element)) {
    return GST_STATE_CHANGE_FAILURE;
  }
  auto* const parent = GST_ELEMENT_CLASS(g_type_class_peek(GST_TYPE_PUSH_SRC));
  return parent->change_state(element, change);
}

bool StandInSource::open(GstElement* element) {
  StandInCamera& camera = StandInCamera::instance();
  const std::lock_guard<std::mutex> lock(camera.mutex_);
  camera.frame_.reset();
  return camera.open_ == nullptr || camera.open_(element);
}

gboolean StandInSource::setFlushing(bool flushing) {
  StandInCamera& camera = StandInCamera::instance();
  const std::lock_guard<std::mutex> lock(camera.mutex_);
  camera.flushing_ = flushing;
  camera.changed_.notify_all();
  return TRUE;
}

GstFlowReturn StandInSource::create(GstPushSrc* source, GstBuffer** buffer) {
  auto& self = *reinterpret_cast<StandInSource*>(source);
  StandInCamera& camera = StandInCamera::instance();
  if (std::exchange(self.delivered, false)) {
    waitForDelivery(GST_BASE_SRC(source));
    const std::lock_guard<std::mutex> lock(camera.mutex_);
    camera.frame_.reset();
    camera.changed_.notify_all();
  }
  std::unique_lock<std::mutex> lock(camera.mutex_);
  camera.changed_.wait(lock, [&camera] { return camera.frame_ || camera.flushing_; });
  if (camera.flushing_) {
    return GST_FLOW_FLUSHING;
  }
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(GST_BASE_SRC_PAD(source));
  GstVideoInfo info;
  gst_video_info_from_caps(&info, caps);
  *buffer = gst_buffer_new_allocate(nullptr, info.size, nullptr);
  gst_buffer_memset(*buffer, 0, static_cast<guint8>(*camera.frame_), info.size);
  GST_BUFFER_PTS(*buffer) = gst_util_uint64_scale_int(GST_SECOND, *camera.frame_, 30);
  GST_BUFFER_DURATION(*buffer) = GST_SECOND / 30;
  self.delivered = true;
  return GST_FLOW_OK;
}

StandInCamera& StandInCamera::instance() {
  static StandInCamera camera;
  static const bool registered =
      gst_element_register(nullptr, "v4l2src", GST_RANK_NONE, StandInSource::type());
  if (!registered) {
    throw std::runtime_error("cannot register the stand-in camera");
  }
  return camera;
}

void StandInCamera::offer(const std::string& caps) {
  const std::lock_guard<std::mutex> lock(mutex_);
  caps_ = caps;
}

void StandInCamera::onOpen(std::function<bool(GstElement*)> open) {
  const std::lock_guard<std::mutex> lock(mutex_);
  open_ = std::move(open);
}

void StandInCamera::show(int number) {
  std::unique_lock<std::mutex> lock(mutex_);
  frame_ = number;
  changed_.notify_all();
  if (!changed_.wait_for(lock, std::chrono::minutes(1), [this] { return !frame_; })) {
    throw std::runtime_error("no source took the camera's frame");
  }
}
