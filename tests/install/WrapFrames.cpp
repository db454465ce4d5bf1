// Wraps a frame of a foreign picture library on either platform.
#include <cstdio>
#include <memory>

#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>
#include <sys/mman.h>
#include <unistd.h>

using media_backend::GstVideoBackend;

namespace {

// Whether a frame becomes a buffer of `bytes` bytes and is let go with the buffer.
bool wraps(GstVideoBackend::Platform platform, const lumora::FrameExportHandle& frame,
           gsize bytes) {
  GstVideoBackend::Profile profile;
  profile.platform = platform;
  const GstVideoBackend backend(profile);
  auto owner = std::make_shared<int>(0);
  GstBuffer* buffer = backend.wrapFrame(frame, owner);
  const bool kept = owner.use_count() == 2;
  const bool right = buffer != nullptr && gst_buffer_get_size(buffer) == bytes;
  gst_clear_buffer(&buffer);
  return right && kept && owner.use_count() == 1;
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  const lumora::FramePlaneLayout luma = {0, 64, 64, 48};
  const lumora::FramePlaneLayout chroma = {64 * 48, 64, 64, 24};
  lumora::FrameExportHandle frame = {
      true, memfd_create("frame", 0), 64 * 72, 64, 48, true, 2, {luma, chroma}};
  const bool right = ftruncate(frame.fd, 64 * 72) == 0 &&
                     wraps(GstVideoBackend::Platform::ImxVpu, frame, 64 * 72) &&
                     wraps(GstVideoBackend::Platform::Nvidia, frame, 64);
  std::puts(right ? "frames wrapped" : "frames of this picture library are not wrapped");
  return right ? 0 : 1;
}
