#include "StandInCamera.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include <gst/base/gstpushsrc.h>
#include <gst/video/video.h>

// The element. Not in an unnamed namespace: the camera names it its friend.
struct StandInSource {
  GstPushSrc base;
  bool delivered;  // the camera's act is done, its outcome on its way

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
  static StandInCamera::Act nextAct();
  static void finishAct();
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
  camera.act_ = nullptr;
  return camera.open_ == nullptr || camera.open_(element);
}

gboolean StandInSource::setFlushing(bool flushing) {
  StandInCamera& camera = StandInCamera::instance();
  const std::lock_guard<std::mutex> lock(camera.mutex_);
  camera.flushing_ = flushing;
  camera.changed_.notify_all();
  return TRUE;
}

// Null when the pipeline stops.
StandInCamera::Act StandInSource::nextAct() {
  StandInCamera& camera = StandInCamera::instance();
  std::unique_lock<std::mutex> lock(camera.mutex_);
  camera.changed_.wait(lock, [&camera] { return camera.act_ != nullptr || camera.flushing_; });
  return camera.flushing_ ? nullptr : camera.act_;
}

void StandInSource::finishAct() {
  StandInCamera& camera = StandInCamera::instance();
  const std::lock_guard<std::mutex> lock(camera.mutex_);
  camera.act_ = nullptr;
  camera.changed_.notify_all();
}

GstFlowReturn StandInSource::create(GstPushSrc* source, GstBuffer** buffer) {
  auto& self = *reinterpret_cast<StandInSource*>(source);
  if (std::exchange(self.delivered, false)) {
    waitForDelivery(GST_BASE_SRC(source));
    finishAct();
  }
  GstFlowReturn flow = GST_FLOW_CUSTOM_SUCCESS;
  while (flow == GST_FLOW_CUSTOM_SUCCESS) {
    const StandInCamera::Act act = nextAct();
    flow = act != nullptr ? act(GST_ELEMENT(source), buffer) : GST_FLOW_FLUSHING;
    self.delivered = flow == GST_FLOW_OK;
    if (!self.delivered) {
      finishAct();
    }
  }
  return flow;
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

void StandInCamera::perform(Act act) {
  std::unique_lock<std::mutex> lock(mutex_);
  act_ = std::move(act);
  changed_.notify_all();
  if (!changed_.wait_for(lock, std::chrono::minutes(1), [this] { return act_ == nullptr; })) {
    throw std::runtime_error("no source did what the camera should do");
  }
}

void StandInCamera::show(int number) {
  perform([number](GstElement* source, GstBuffer** buffer) {
    g_autoptr(GstCaps) caps = gst_pad_get_current_caps(GST_BASE_SRC_PAD(source));
    GstVideoInfo info;
    gst_video_info_from_caps(&info, caps);
    *buffer = gst_buffer_new_allocate(nullptr, info.size, nullptr);
    gst_buffer_memset(*buffer, 0, static_cast<guint8>(number), info.size);
    GST_BUFFER_PTS(*buffer) = gst_util_uint64_scale_int(GST_SECOND, number, 30);
    GST_BUFFER_DURATION(*buffer) = GST_SECOND / 30;
    return GST_FLOW_OK;
  });
}
