// The helpers of the GStreamer sources. GStreamer's default layouts come from real caps; layouts
// that caps cannot express are put in place of what GStreamer reads from them.

#include <cmath>
#include <functional>
#include <limits>
#include <tuple>

#include <fcntl.h>
#include <gst/allocators/gstfdmemory.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <media_backend/GstNv12Sample.h>

#include "support/Bytes.h"
#include "support/Interpose.h"

namespace {

std::function<void(GstVideoInfo&)> g_changeInfo;

}  // namespace

extern "C" gboolean gst_video_info_from_caps(GstVideoInfo* info, const GstCaps* caps) {
  static auto* const real =
      nextDefinition<decltype(gst_video_info_from_caps)>("gst_video_info_from_caps");
  const gboolean parsed = real(info, caps);
  if (parsed && g_changeInfo) {
    g_changeInfo(*info);
  }
  return parsed;
}

namespace {

using namespace media_backend::gst_source;

TEST(EvenDimension, RoundsDownButNotBelowTwo) {
  const unsigned int rows[][2] = {{0, 2}, {1, 2}, {2, 2},       {3, 2},
                                  {4, 4}, {5, 4}, {1281, 1280}, {4294967295, 4294967294}};
  for (const auto& row : rows) {
    EXPECT_EQ(even_dimension(row[0]), row[1]) << row[0];
  }
}

TEST(FpsFraction, IsReducedAndExactToAThousandth) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const std::pair<double, std::pair<int, int>> rows[] = {
      {30, {30, 1}},         {29.97, {2997, 100}},  {30000.0 / 1001, {2997, 100}},
      {23.976, {2997, 125}}, {59.94, {2997, 50}},   {12.5, {25, 2}},
      {0.1234, {123, 1000}}, {0.1, {1, 10}},        {0.0999, {1, 10}},
      {-5, {1, 10}},         {-kInfinity, {1, 10}}, {240, {240, 1}},
      {240.0001, {240, 1}},  {kInfinity, {240, 1}}, {std::nan(""), {0, 1000}}};
  for (const auto& [fps, fraction] : rows) {
    EXPECT_EQ(fps_fraction(fps), fraction) << fps;
  }
  // Exactly half a thousandth rounds up.
  EXPECT_EQ(fps_fraction(7.0625), std::make_pair(7063, 1000));
}

struct Layout {
  gsize lumaOffset;
  unsigned lumaStride;
  gsize chromaOffset;
  unsigned chromaStride;
};

std::uint8_t lumaAt(unsigned x, unsigned y) {
  return static_cast<std::uint8_t>(1 + (x * 3 + y * 5) % 120);
}

std::uint8_t chromaAt(unsigned x, unsigned y) {
  return static_cast<std::uint8_t>(130 + (x * 7 + y * 11) % 120);
}

// A sample of `size` bytes in which every visible byte is known and the padding is 0.
GstSample* makeSample(const char* caps, const Layout& layout, unsigned width, unsigned height,
                      gsize size) {
  std::vector<std::uint8_t> bytes(size);
  for (unsigned y = 0; y < height; ++y) {
    for (unsigned x = 0; x < width; ++x) {
      bytes.at(layout.lumaOffset + std::size_t{y} * layout.lumaStride + x) = lumaAt(x, y);
      bytes.at(layout.chromaOffset + std::size_t{y / 2} * layout.chromaStride + x) =
          chromaAt(x, y / 2);
    }
  }
  g_autoptr(GstBuffer) buffer =
      bufferOf({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  g_autoptr(GstCaps) parsed = gst_caps_from_string(caps);
  return gst_sample_new(buffer, parsed, nullptr, nullptr);
}

void expectPicture(const lumora::LumoraPicture& picture, unsigned width, unsigned height) {
  ASSERT_EQ(picture.width(), width);
  ASSERT_EQ(picture.height(), height);
  for (unsigned y = 0; y < height; ++y) {
    for (unsigned x = 0; x < width; ++x) {
      ASSERT_EQ(picture.luma()[y * picture.stride() + x], lumaAt(x, y)) << x << "," << y;
      ASSERT_EQ(picture.chroma()[y / 2 * picture.stride() + x], chromaAt(x, y / 2));
    }
  }
}

struct LayoutRow {
  const char* name;
  unsigned width;
  unsigned height;
  Layout layout;
  gsize size;  // the least that is enough
  bool repacked;
  bool fromCaps;  // GStreamer's own layout for caps of this size
};

const LayoutRow kLayouts[] = {
    {"720p", 1280, 720, {0, 1280, 921600, 1280}, 1382400, false, true},
    {"odd width", 33, 16, {0, 36, 576, 36}, 864, false, true},
    {"odd height leaves a gap", 1280, 721, {0, 1280, 924160, 1280}, 1384960, true, true},
    {"one row", 64, 1, {0, 64, 128, 64}, 192, false, true},
    {"padded alike", 1280, 720, {0, 1536, 1105920, 1536}, 1658880, false, false},
    {"one byte between planes", 1280, 720, {0, 1280, 921601, 1280}, 1382401, true, false},
    {"chroma padded more", 1280, 720, {0, 1280, 921600, 1536}, 1474560, true, false},
    {"luma padded more", 1280, 720, {0, 1536, 1105920, 1280}, 1566720, true, false},
    {"luma shifted", 32, 16, {16, 64, 1024, 64}, 1536, true, false},
    {"luma behind chroma", 64, 16, {512, 64, 0, 64}, 1536, true, false},
};

class Nv12Sample : public testing::Test {
 protected:
  static void SetUpTestSuite() { ensure_initialized(); }

  std::shared_ptr<lumora::LumoraPicture> convert(GstSample* sample) {
    std::shared_ptr<lumora::LumoraPicture> picture =
        picture_from_nv12_sample(sample, scratch_, error_);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(sample), 1);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(gst_sample_get_buffer(sample)), 1);
    // A map that was left behind for reading would refuse this one.
    GstMemory* const memory = gst_buffer_peek_memory(gst_sample_get_buffer(sample), 0);
    GstMapInfo map;
    EXPECT_TRUE(gst_memory_map(memory, &map, GST_MAP_WRITE));
    gst_memory_unmap(memory, &map);
    return picture;
  }

  void TearDown() override { g_changeInfo = nullptr; }

  std::vector<std::uint8_t> scratch_;
  std::string error_;
};

TEST_F(Nv12Sample, IsCopiedFromAnyLayoutUnlessOneByteIsMissing) {
  for (const LayoutRow& row : kLayouts) {
    SCOPED_TRACE(row.name);
    g_changeInfo = nullptr;
    if (!row.fromCaps) {
      g_changeInfo = [&row](GstVideoInfo& info) {
        info.offset[0] = row.layout.lumaOffset;
        info.offset[1] = row.layout.chromaOffset;
        info.stride[0] = static_cast<gint>(row.layout.lumaStride);
        info.stride[1] = static_cast<gint>(row.layout.chromaStride);
      };
    }
    const unsigned height = even_dimension(row.height);
    const std::string caps = "video/x-raw,format=NV12,width=" + std::to_string(row.width) +
                             ",height=" + std::to_string(row.height);
    g_autoptr(GstSample) sample = makeSample(caps.c_str(), row.layout, row.width, height, row.size);
    const std::size_t capacity = scratch_.capacity();
    scratch_.assign(5, 0xee);
    error_ = "kept";
    const auto picture = convert(sample);
    ASSERT_NE(picture, nullptr) << error_;
    EXPECT_EQ(error_, "kept");
    expectPicture(*picture, row.width, height);
    EXPECT_EQ(scratch_.size(), row.repacked ? std::size_t{row.width} * height * 3 / 2 : 5);
    EXPECT_GE(scratch_.capacity(), capacity);  // smaller pictures use the same memory

    g_autoptr(GstSample) tooShort = makeSample(caps.c_str(), row.layout, 0, 0, row.size - 1);
    EXPECT_EQ(convert(tooShort), nullptr);
    EXPECT_EQ(error_, "GStreamer NV12 buffer is shorter than its caps layout");
  }
}

TEST_F(Nv12Sample, NamesWhatIsWrong) {
  const char* const nv12 = "video/x-raw,format=NV12,width=64,height=16";
  const char* const badLayout = "invalid NV12 layout from GStreamer";
  const std::tuple<const char*, std::function<void(GstVideoInfo&)>, const char*> rows[] = {
      {nullptr, nullptr, "GStreamer sample is missing buffer or caps"},
      {"audio/x-raw", nullptr, "failed to parse GStreamer video caps"},
      {"video/x-raw,format=I420,width=64,height=16", nullptr, "GStreamer sample is not NV12"},
      {nv12, [](GstVideoInfo& info) { info.width = 0; }, badLayout},
      {nv12, [](GstVideoInfo& info) { info.stride[0] = 0; }, badLayout},
      {nv12, [](GstVideoInfo& info) { info.stride[1] = -1; }, badLayout},
      // a plane whose end, counted in 64 bits, is 0
      {nv12, [](GstVideoInfo& info) { info.offset[1] = ~gsize{0} - 511; },
       "GStreamer NV12 buffer is shorter than its caps layout"},
      // rows that overlap: the factory refuses a stride below the width
      {nv12,
       [](GstVideoInfo& info) {
         info.stride[0] = info.stride[1] = 32;
         info.offset[1] = 512;
       },
       "LumoraPicture::fromNv12Host failed"},
  };
  for (const auto& [caps, change, error] : rows) {
    SCOPED_TRACE(error);
    g_changeInfo = change;
    g_autoptr(GstBuffer) buffer = gst_buffer_new_allocate(nullptr, 1536, nullptr);
    gst_buffer_memset(buffer, 0, 0, 1536);
    g_autoptr(GstCaps) parsed = caps == nullptr ? nullptr : gst_caps_from_string(caps);
    g_autoptr(GstSample) sample = gst_sample_new(buffer, parsed, nullptr, nullptr);
    gst_clear_buffer(&buffer);
    error_ = "from an earlier frame";
    EXPECT_EQ(convert(sample), nullptr);
    EXPECT_EQ(error_, error);
  }
}

TEST_F(Nv12Sample, NeedsABufferThatCanBeRead) {
  g_autoptr(GstCaps) caps = gst_caps_from_string("video/x-raw,format=NV12,width=64,height=16");
  g_autoptr(GstSample) empty = gst_sample_new(nullptr, caps, nullptr, nullptr);
  EXPECT_EQ(picture_from_nv12_sample(empty, scratch_, error_), nullptr);
  EXPECT_EQ(error_, "GStreamer sample is missing buffer or caps");

  g_autoptr(GstAllocator) allocator = gst_fd_allocator_new();
  const int writeOnly = open("/dev/null", O_WRONLY | O_CLOEXEC);
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  gst_buffer_append_memory(
      buffer, gst_fd_allocator_alloc(allocator, writeOnly, 1536, GST_FD_MEMORY_FLAG_NONE));
  g_autoptr(GstSample) unreadable = gst_sample_new(buffer, caps, nullptr, nullptr);
  EXPECT_EQ(picture_from_nv12_sample(unreadable, scratch_, error_), nullptr);
  EXPECT_EQ(error_, "failed to map GStreamer buffer");
}

}  // namespace
