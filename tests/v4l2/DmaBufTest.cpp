// Frames in the kernel's real dma-bufs, from the camera's driver or a heap, up to the encoder.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gst/allocators/gstdmabuf.h>
#include <gtest/gtest.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <simulated_board/SimulatedBoard.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "camera/Camera.h"
#include "support/Command.h"
#include "support/Interpose.h"
#include "support/MovingPicture.h"
#include "support/Pipeline.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"

namespace {

std::atomic<bool> g_heapIsEmpty{false};
std::atomic<int> g_written{0};  // accesses that have ended
std::atomic<int> g_read{0};

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == DMA_HEAP_IOCTL_ALLOC && g_heapIsEmpty) {
    errno = ENOMEM;
    return -1;
  }
  if (request == DMA_BUF_IOCTL_SYNC) {
    const auto flags = static_cast<const dma_buf_sync*>(argument)->flags;
    if ((flags & DMA_BUF_SYNC_END) != 0) {
      ++((flags & DMA_BUF_SYNC_WRITE) != 0 ? g_written : g_read);
    }
  }
  return nextDefinition<int(int, unsigned long, ...)>("ioctl")(fd, request, argument);
}

namespace {

namespace fs = std::filesystem;
using lumora::ExportedFrame;
using lumora::FrameMemoryKind;
using media_backend::GstVideoBackend;
using Frames = std::vector<std::shared_ptr<ExportedFrame>>;

constexpr unsigned kWidth = 640;
constexpr unsigned kHeight = 360;  // no multiple of 16

ino_t inodeOf(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

// Whether this process has any pixels of a camera or dma-buf mapped.
bool hasMapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("dmabuf") != std::string::npos || line.find("/dev/video") != std::string::npos) {
      return true;
    }
  }
  return false;
}

// The frame's pixels, for comparison.
std::shared_ptr<lumora::LumoraPicture> pictureOf(const ExportedFrame& frame) {
  const lumora::FrameExportHandle& handle = frame.handle();
  void* const bytes = mmap(nullptr, handle.size, PROT_READ, MAP_SHARED, handle.fd, 0);
  EXPECT_NE(bytes, MAP_FAILED);
  EXPECT_EQ(handle.planes[1].offset, std::uint64_t{handle.planes[0].stride} * kHeight);
  auto picture =
      lumora::LumoraPicture::fromNv12Host(bytes, kWidth, kHeight, handle.planes[0].stride);
  munmap(bytes, handle.size);
  return picture;
}

class DmaBufs : public testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists("/dev/dma_heap/system") || !fs::exists("/dev/udmabuf")) {
      GTEST_SKIP() << "the kernel has no dma-bufs here; scripts/test-v4l2 has one that does";
    }
    setenv("GST_V4L2_FORCE_DRAIN", "1", 1);
    std::string error;
    ASSERT_TRUE(simulated_board::registerElements(nullptr, "imx", error)) << error;
  }

  std::unique_ptr<station::Camera> vivid(unsigned fps,
                                         station::Feed feed = station::Feed::ZeroCopy) const {
    station::CameraOptions options;
    options.source = "/dev/video0";
    options.width = kWidth;
    options.height = kHeight;
    options.fps = fps;
    options.feed = feed;
    return station::Camera::openFor(backend_, options);
  }

  // Sends the frames through the simulated encoder and a decoder. The inodes of the dma-bufs that
  // the encoder saw go into `seen`.
  std::vector<std::string> encode(const Frames& frames, std::set<ino_t>& seen) const {
    Pipeline encoder("appsrc name=in format=time " + backend_.inputConversionChain("bt709") +
                     backend_.transportEncoderChain(
                         {GstVideoBackend::Codec::H264, 4000000, 1, 1, 15, 15}, "-1") +
                     "! openh264dec ! videoconvert ! video/x-raw,format=NV12 ! appsink name=out "
                     "sync=false");
    const media_backend::GstPtr<GstElement> element = encoder.element("encoder");
    const media_backend::GstPtr<GstPad> input(gst_element_get_static_pad(element.get(), "sink"));
    const auto look = [](GstPad*, GstPadProbeInfo* info, gpointer inodes) {
      GstMemory* const memory = gst_buffer_peek_memory(GST_PAD_PROBE_INFO_BUFFER(info), 0);
      static_cast<std::set<ino_t>*>(inodes)->insert(inodeOf(gst_dmabuf_memory_get_fd(memory)));
      return GST_PAD_PROBE_OK;
    };
    gst_pad_add_probe(input.get(), GST_PAD_PROBE_TYPE_BUFFER, look, &seen, nullptr);
    EXPECT_TRUE(backend_.setInputCaps(encoder.source(), kWidth, kHeight, 10, true, nullptr));
    for (std::size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(frames[i]->handle().fd)),
                "/dmabuf:");
      GstBuffer* const buffer = backend_.wrapFrame(frames[i]->handle(), frames[i]);
      GST_BUFFER_PTS(buffer) = i * GST_SECOND / 10;
      encoder.push(buffer);
    }
    encoder.finish();
    return encoder.pullAll();
  }

  const GstVideoBackend backend_{imxProfile()};
};

TEST_F(DmaBufs, OfTheCameraReachTheEncoderUntouched) {
  const auto camera = vivid(10);
  Frames frames;
  std::set<ino_t> exported;
  for (int i = 0; i < 3; ++i) {
    frames.push_back(camera->exportPicture(*camera->next()));
    exported.insert(inodeOf(frames.back()->handle().fd));
  }
  EXPECT_FALSE(hasMapped());
  std::set<ino_t> seen;
  const std::vector<std::string> shown = encode(frames, seen);
  EXPECT_EQ(seen, exported);
  ASSERT_EQ(shown.size(), frames.size());
  for (std::size_t i = 0; i < shown.size(); ++i) {
    EXPECT_GT(psnr(reinterpret_cast<const std::uint8_t*>(shown[i].data()), *pictureOf(*frames[i])),
              30);
  }
}

TEST_F(DmaBufs, OfTheCameraGoBackToTheDriver) {
  const auto camera = vivid(60);
  camera->next();
  const std::ptrdiff_t descriptors = openDescriptors();
  const char* const frames = std::getenv("V4L2_TEST_FRAMES");
  std::set<ino_t> buffers;
  bool isDriversAtTheEnd = false;
  for (int i = frames != nullptr ? std::atoi(frames) : 60; i > 0; --i) {
    const auto frame = camera->exportPicture(*camera->next());
    if (frame->pixels() == nullptr) {  // a machine that is too slow copies some
      buffers.insert(inodeOf(frame->handle().fd));
      isDriversAtTheEnd = isDriversAtTheEnd || i <= 10;
    }
  }
  EXPECT_TRUE(isDriversAtTheEnd);
  EXPECT_GT(buffers.size(), 1U);
  EXPECT_LE(buffers.size(), 32U);                 // V4L2's most
  EXPECT_LE(openDescriptors(), descriptors + 2);  // memory for copies
}

// What the driver says of its colours is in the stream, by GStreamer's parser of H.264. The last
// row is the driver's default.
TEST_F(DmaBufs, OfTheCameraHaveTheDriversColours) {
  for (const auto& [controls, colorimetry] :
       {std::pair{"colorspace=0", "bt601"}, std::pair{"colorspace=1", "bt709"},
        std::pair{"colorspace=1,quantization=1", "1:3:5:1"},
        std::pair{"colorspace=2,quantization=0", "2:4:7:1"}}) {
    runCommand({"v4l2-ctl", "-d", "/dev/video0", "-c", controls});
    for (const station::Feed feed : {station::Feed::ZeroCopy, station::Feed::Copy}) {
      const auto camera = vivid(10, feed);
      Pipeline encoder("appsrc name=in format=time " + backend_.inputConversionChain(nullptr) +
                       backend_.transportEncoderChain(
                           {GstVideoBackend::Codec::H264, 4000000, 1, 1, 15, 15}, "-1") +
                       "! h264parse ! appsink name=out sync=false");
      camera->format().setCaps(backend_, GST_ELEMENT(encoder.source()));
      GstBuffer* const buffer =
          camera->format().wrap(backend_, camera->exportPicture(*camera->next()));
      GST_BUFFER_PTS(buffer) = 0;
      encoder.push(buffer);
      encoder.finish();
      g_autoptr(GstSample) sample = encoder.pull();
      ASSERT_NE(sample, nullptr);
      g_autofree gchar* caps = gst_caps_to_string(gst_sample_get_caps(sample));
      EXPECT_NE(std::string(caps).find(std::string("colorimetry=(string)") + colorimetry),
                std::string::npos)
          << controls << " " << static_cast<int>(feed) << " " << caps;
    }
  }
}

// A consumer that gives nothing back does not stop the camera: it copies.
TEST_F(DmaBufs, OfTheCameraMayAllBeInUse) {
  const auto camera = vivid(60);
  Frames frames;
  while (frames.size() < 40) {
    frames.push_back(camera->exportPicture(*camera->next()));
  }
  EXPECT_EQ(frames[0]->pixels(), nullptr);
  EXPECT_NE(frames.back()->pixels(), nullptr);
}

TEST_F(DmaBufs, OfHeapAndUdmabufAreEncoded) {
  for (const FrameMemoryKind kind : {FrameMemoryKind::Heap, FrameMemoryKind::Udmabuf}) {
    const std::ptrdiff_t descriptors = openDescriptors();
    g_written = g_read = 0;
    lumora::FramePool pool(lumora::frameMemoryPlaces(kind), {}, nullptr);
    Frames frames;
    for (int i = 0; i < 3; ++i) {
      frames.push_back(pool.exportPicture(*movingPicture(kWidth, kHeight, i)));
      ASSERT_NE(frames.back(), nullptr);
      EXPECT_EQ(frames.back()->handle().planes[1].offset, std::uint64_t{768} * 368);
    }
    std::set<ino_t> seen;
    const std::vector<std::string> shown = encode(frames, seen);
    ASSERT_EQ(shown.size(), frames.size());
    for (int i = 0; i < 3; ++i) {
      EXPECT_GT(
          psnr(reinterpret_cast<const std::uint8_t*>(shown[static_cast<std::size_t>(i)].data()),
               *movingPicture(kWidth, kHeight, i)),
          30);
    }
    EXPECT_EQ(seen.size(), 3U);
    EXPECT_EQ(g_written, 3);
    EXPECT_EQ(g_read, 3);
    frames.clear();
    for (int i = 0; i < 1000; ++i) {
      pool.exportPicture(*movingPicture(64, 64, 0));
    }
    EXPECT_TRUE(descriptorsSettle(descriptors + 1));  // of the pool's memory
  }
}

TEST_F(DmaBufs, FallBackWhenTheHeapIsEmpty) {
  station::CameraOptions options;
  options.source = "/dev/zero";  // not opened
  station::FrameFeed feed(backend_, options);
  station::FrameFormat format;
  feed.begin(format);
  EXPECT_EQ(format.feed, "zero copy: memory of /dev/dma_heap/system");
  const auto first = feed.exportPicture(*movingPicture(1280, 720, 0));
  testing::internal::CaptureStderr();
  g_heapIsEmpty = true;
  const auto second = feed.exportPicture(*movingPicture(1280, 720, 1));
  g_heapIsEmpty = false;
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "no frame memory from /dev/dma_heap/system (Cannot allocate memory): /dev/udmabuf from "
            "here on\n");
  EXPECT_NE(second, nullptr);
}

}  // namespace
