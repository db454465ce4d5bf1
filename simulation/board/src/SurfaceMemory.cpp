#include "SurfaceMemory.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <gst/allocators/gstfdmemory.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <simulated_board/Surface.h>

namespace simulated_board {
namespace {

constexpr std::uint32_t kStrideAlignment = 256;  // bytes

// A surface that owns its descriptor.
struct OwnedSurface : Surface {
  OwnedSurface() = default;
  OwnedSurface(const OwnedSurface&) = delete;
  OwnedSurface& operator=(const OwnedSurface&) = delete;
  ~OwnedSurface() {
    if (fd >= 0) {
      close(fd);
    }
  }

  static void destroy(gpointer surface) { delete static_cast<OwnedSurface*>(surface); }
};

std::string sizeText(std::uint64_t width, std::uint64_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

bool planeFits(const Surface& surface, int index, std::uint32_t rows) {
  const Surface::Plane& plane = surface.planes[index];
  const std::uint64_t rowBytes = (std::uint64_t{surface.width} + 1) / 2 * 2;
  return plane.rows >= rows && plane.stride >= rowBytes && plane.stride <= G_MAXINT &&
         plane.offset <= surface.size &&
         std::uint64_t{rows - 1} * plane.stride + rowBytes <= surface.size - plane.offset;
}

// Access beyond the end of the file would end the process with SIGBUS.
bool descriptorHolds(const Surface& surface) {
  struct stat status;
  return fstat(surface.fd, &status) == 0 &&
         (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) >= surface.size);
}

bool validate(const Surface& surface, const GstVideoInfo& info, std::string& error) {
  const auto width = static_cast<std::uint32_t>(GST_VIDEO_INFO_WIDTH(&info));
  const auto height = static_cast<std::uint32_t>(GST_VIDEO_INFO_HEIGHT(&info));
  if (surface.magic != Surface::kMagic) {
    error = "expected a surface block in NVMM memory, but its magic number is wrong";
  } else if (surface.width != width || surface.height != height) {
    error = "expected a surface of " + sizeText(width, height) + " as in the caps, got one of " +
            sizeText(surface.width, surface.height);
  } else if (!planeFits(surface, 0, height) || !planeFits(surface, 1, (height + 1) / 2)) {
    error = "expected a surface whose two NV12 planes lie inside its " +
            std::to_string(surface.size) + " bytes";
  } else if (!descriptorHolds(surface)) {
    error = "expected a surface with a descriptor of at least " + std::to_string(surface.size) +
            " bytes";
  } else {
    return true;
  }
  return false;
}

bool readSurface(GstBuffer* buffer, Surface& surface, std::string& error) {
  const gsize bytes = gst_buffer_get_size(buffer);
  if (gst_buffer_n_memory(buffer) != 1 || bytes < sizeof(surface)) {
    error = "expected one memory with a surface block of " + std::to_string(sizeof(surface)) +
            " bytes in an NVMM buffer, got " + std::to_string(gst_buffer_n_memory(buffer)) +
            " of together " + std::to_string(bytes) + " bytes";
    return false;
  }
  if (gst_buffer_extract(buffer, 0, &surface, sizeof(surface)) != sizeof(surface)) {
    error = "cannot map the surface block of an NVMM buffer";
    return false;
  }
  return true;
}

std::unique_ptr<OwnedSurface> allocateSurface(std::uint32_t width, std::uint32_t height) {
  const std::uint32_t stride = (width + kStrideAlignment - 1) / kStrideAlignment * kStrideAlignment;
  const std::uint32_t chromaRows = (height + 1) / 2;
  auto surface = std::make_unique<OwnedSurface>();
  surface->magic = Surface::kMagic;
  surface->size = std::uint64_t{stride} * (height + chromaRows);
  surface->width = width;
  surface->height = height;
  surface->planes[0] = {0, stride, height};
  surface->planes[1] = {std::uint64_t{stride} * height, stride, chromaRows};
  surface->fd = memfd_create("simulated-surface", MFD_CLOEXEC);
  if (surface->fd < 0 || ftruncate(surface->fd, static_cast<off_t>(surface->size)) != 0) {
    return nullptr;
  }
  return surface;
}

void releaseBuffer(gpointer buffer) {
  gst_buffer_unref(static_cast<GstBuffer*>(buffer));
}

}  // namespace

GstBuffer* pixelsOf(GstBuffer* surfaceBuffer, const GstVideoInfo& info, std::string& error) {
  Surface surface;
  if (!readSurface(surfaceBuffer, surface, error) || !validate(surface, info, error)) {
    return nullptr;
  }
  g_autoptr(GstAllocator) allocator = gst_fd_allocator_new();
  GstMemory* const memory =
      gst_fd_allocator_alloc(allocator, surface.fd, surface.size, GST_FD_MEMORY_FLAG_DONT_CLOSE);
  if (memory == nullptr) {
    error = "cannot use the descriptor of a surface";
    return nullptr;
  }
  GstBuffer* const pixels = gst_buffer_new();
  gst_buffer_append_memory(pixels, memory);
  gsize offsets[GST_VIDEO_MAX_PLANES] = {surface.planes[0].offset, surface.planes[1].offset};
  gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(surface.planes[0].stride),
                                        static_cast<gint>(surface.planes[1].stride)};
  gst_buffer_add_video_meta_full(pixels, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12,
                                 surface.width, surface.height, 2, offsets, strides);
  // Attached to the memory: encoders of GStreamer 1.18 copy the meta of a buffer to their output.
  static const GQuark kSurfaceBuffer = g_quark_from_static_string("simulated-board-surface");
  gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(memory), kSurfaceBuffer,
                            gst_buffer_ref(surfaceBuffer), releaseBuffer);
  return pixels;
}

GstBuffer* makeSurfaceBuffer(const GstVideoInfo& info, std::string& error) {
  std::unique_ptr<OwnedSurface> surface =
      allocateSurface(static_cast<std::uint32_t>(GST_VIDEO_INFO_WIDTH(&info)),
                      static_cast<std::uint32_t>(GST_VIDEO_INFO_HEIGHT(&info)));
  if (surface == nullptr) {
    error = std::string("cannot allocate a surface: ") + std::strerror(errno);
    return nullptr;
  }
  OwnedSurface* const block = surface.release();
  return gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), static_cast<Surface*>(block),
                                     sizeof(Surface), 0, sizeof(Surface), block,
                                     OwnedSurface::destroy);
}

}  // namespace simulated_board
