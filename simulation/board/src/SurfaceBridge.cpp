#include "SurfaceBridge.h"

#include <string>

#include <gst/base/gstbasetransform.h>
#include <gst/video/video.h>

#include "Guarded.h"
#include "SurfaceMemory.h"
#include "TypeRegistration.h"

namespace simulated_board {
namespace {

constexpr const char* kBoardMemory = "memory:NVMM";
constexpr const char* kCaps = "video/x-raw;video/x-raw(memory:NVMM),format=NV12";

struct SurfaceBridge {
  GstBaseTransform parent;
  GstVideoInfo info;
  bool fromSurface;
  bool downstreamTakesVideoMeta;
};

struct SurfaceBridgeClass {
  GstBaseTransformClass parent;
};

GstBaseTransformClass* parentClass = nullptr;

SurfaceBridge* bridgeOf(GstBaseTransform* transform) {
  return reinterpret_cast<SurfaceBridge*>(transform);
}

bool isBoardMemory(const GstCaps* caps) {
  return gst_caps_features_contains(gst_caps_get_features(caps, 0), kBoardMemory) == TRUE;
}

GstFlowReturn fail(GstBaseTransform* transform, const std::string& error) {
  GST_ELEMENT_ERROR(transform, STREAM, FORMAT, ("%s", error.c_str()), (nullptr));
  return GST_FLOW_ERROR;
}

// Prefers the same memory on both sides, which takes no copy.
GstCaps* transformCaps(GstBaseTransform*, GstPadDirection, GstCaps* caps, GstCaps* filter) {
  GstCaps* system = gst_caps_copy(caps);
  gst_caps_set_features_simple(system, nullptr);
  g_autoptr(GstCaps) nv12 =
      gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "NV12", nullptr);
  GstCaps* surface = gst_caps_intersect(system, nv12);
  gst_caps_set_features_simple(surface, gst_caps_features_new(kBoardMemory, nullptr));
  GstCaps* const either = gst_caps_is_empty(caps) == FALSE && isBoardMemory(caps)
                              ? gst_caps_merge(surface, system)
                              : gst_caps_merge(system, surface);
  if (filter == nullptr) {
    return either;
  }
  GstCaps* const filtered = gst_caps_intersect_full(filter, either, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(either);
  return filtered;
}

gboolean setCaps(GstBaseTransform* transform, GstCaps* input, GstCaps*) {
  SurfaceBridge* const bridge = bridgeOf(transform);
  bridge->fromSurface = isBoardMemory(input);
  return gst_video_info_from_caps(&bridge->info, input);
}

gboolean proposeAllocation(GstBaseTransform* transform, GstQuery* decided, GstQuery* query) {
  if (!GST_BASE_TRANSFORM_CLASS(parentClass)->propose_allocation(transform, decided, query)) {
    return FALSE;
  }
  if (decided != nullptr) {
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
  }
  return TRUE;
}

// Output buffers wrap surfaces, so downstream's pools are not used.
gboolean decideAllocation(GstBaseTransform* transform, GstQuery* query) {
  bridgeOf(transform)->downstreamTakesVideoMeta =
      gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr) == TRUE;
  while (gst_query_get_n_allocation_pools(query) > 0) {
    gst_query_remove_nth_allocation_pool(query, 0);
  }
  return TRUE;
}

// `info` is a copy: before GStreamer 1.20, gst_video_frame_map() takes a non-const one.
bool copyFrame(GstBuffer* source, GstBuffer* target, GstVideoInfo info) {
  GstVideoFrame from;
  GstVideoFrame to;
  if (!gst_video_frame_map(&from, &info, source, GST_MAP_READ)) {
    return false;
  }
  bool copied = false;
  if (gst_video_frame_map(&to, &info, target, GST_MAP_WRITE)) {
    copied = gst_video_frame_copy(&to, &from) == TRUE;
    gst_video_frame_unmap(&to);
  }
  gst_video_frame_unmap(&from);
  return copied;
}

// Returns a copy in the layout of the caps, for an element without video meta.
GstBuffer* packed(GstBuffer* pixels, const GstVideoInfo& info, std::string& error) {
  g_autoptr(GstBuffer) copy = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
  if (!copyFrame(pixels, copy, info)) {
    error = "cannot read the pixels of a surface";
    return nullptr;
  }
  return static_cast<GstBuffer*>(g_steal_pointer(&copy));
}

GstBuffer* importSurface(const SurfaceBridge& bridge, GstBuffer* input, std::string& error) {
  g_autoptr(GstBuffer) pixels = pixelsOf(input, bridge.info, error);
  if (pixels == nullptr) {
    return nullptr;
  }
  if (!bridge.downstreamTakesVideoMeta) {
    return packed(pixels, bridge.info, error);
  }
  // The camera owns the pixels: an element that works in place has to copy them first.
  GST_MINI_OBJECT_FLAG_SET(gst_buffer_peek_memory(pixels, 0), GST_MEMORY_FLAG_READONLY);
  return static_cast<GstBuffer*>(g_steal_pointer(&pixels));
}

GstFlowReturn prepareOutputBuffer(GstBaseTransform* transform, GstBuffer* input,
                                  GstBuffer** output) {
  if (gst_base_transform_is_passthrough(transform)) {
    *output = input;
    return GST_FLOW_OK;
  }
  const SurfaceBridge* const bridge = bridgeOf(transform);
  std::string error;
  *output = bridge->fromSurface ? importSurface(*bridge, input, error)
                                : makeSurfaceBuffer(bridge->info, error);
  if (*output == nullptr) {
    return fail(transform, error);
  }
  GST_BASE_TRANSFORM_CLASS(parentClass)->copy_metadata(transform, input, *output);
  return GST_FLOW_OK;
}

GstFlowReturn transformBuffer(GstBaseTransform* transform, GstBuffer* input, GstBuffer* output) {
  const SurfaceBridge* const bridge = bridgeOf(transform);
  if (bridge->fromSurface) {
    return GST_FLOW_OK;
  }
  std::string error;
  g_autoptr(GstBuffer) pixels = pixelsOf(output, bridge->info, error);
  if (pixels == nullptr || !copyFrame(input, pixels, bridge->info)) {
    return fail(transform, "cannot write the pixels of a surface: " + error);
  }
  return GST_FLOW_OK;
}

void initClass(gpointer klass, gpointer) {
  parentClass = static_cast<GstBaseTransformClass*>(g_type_class_peek_parent(klass));
  auto* const element = static_cast<GstElementClass*>(klass);
  addPadTemplate(element, "sink", GST_PAD_SINK, kCaps);
  addPadTemplate(element, "src", GST_PAD_SRC, kCaps);
  gst_element_class_set_static_metadata(element, "Simulated board memory bridge", "Filter/Video",
                                        "Goes between board memory and system memory", "-");
  auto* const transform = static_cast<GstBaseTransformClass*>(klass);
  transform->passthrough_on_same_caps = TRUE;
  transform->transform_caps = transformCaps;
  transform->set_caps = setCaps;
  transform->propose_allocation = proposeAllocation;
  transform->decide_allocation = decideAllocation;
  transform->prepare_output_buffer = guarded<prepareOutputBuffer>;
  transform->transform = guarded<transformBuffer>;
}

GType registerType() {
  GTypeInfo info = {};
  info.class_size = sizeof(SurfaceBridgeClass);
  info.class_init = initClass;
  info.instance_size = sizeof(SurfaceBridge);
  return typeOnce(GST_TYPE_BASE_TRANSFORM, "SimulatedBoardSurfaceBridge", info);
}

}  // namespace

GstElement* makeSurfaceBridge() {
  static const GType type = registerType();
  return static_cast<GstElement*>(g_object_new(type, nullptr));
}

}  // namespace simulated_board
