// What wrapFrame leaves behind when memory or descriptors run out. This program's own definitions
// of the functions that it calls fail on command and count what is alive.

#include <atomic>
#include <new>

#include <gst/allocators/gstdmabuf.h>
#include <gtest/gtest.h>
#include <media_backend/GstVideoBackend.h>
#include <unistd.h>

#include "support/Interpose.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"
#include "support/TestFrame.h"

namespace {

enum class Fault { None, BufferNew, AllocatorNew, Dup, DmaBufAlloc, HolderNew, MemoryNew };

Fault g_armed = Fault::None;
int g_failed = 0;
std::atomic<int> g_alive = 0;

bool fails(Fault fault) {
  const bool armed = g_armed == fault;
  g_failed += armed ? 1 : 0;
  return armed;
}

void noteDead(gpointer, GstMiniObject*) {
  --g_alive;
}

template <typename Object>
Object* noteAlive(Object* object) {
  ++g_alive;
  gst_mini_object_weak_ref(GST_MINI_OBJECT_CAST(object), noteDead, nullptr);
  return object;
}

}  // namespace

extern "C" {

int dup(int fd) noexcept {
  static auto* const real = nextDefinition<int(int)>("dup");
  return fails(Fault::Dup) ? -1 : real(fd);
}

GstBuffer* gst_buffer_new(void) {
  static auto* const real = nextDefinition<decltype(gst_buffer_new)>("gst_buffer_new");
  return fails(Fault::BufferNew) ? nullptr : noteAlive(real());
}

GstAllocator* gst_dmabuf_allocator_new(void) {
  static auto* const real =
      nextDefinition<decltype(gst_dmabuf_allocator_new)>("gst_dmabuf_allocator_new");
  if (fails(Fault::AllocatorNew)) {
    return nullptr;
  }
  ++g_alive;
  GstAllocator* const allocator = real();
  g_object_weak_ref(
      G_OBJECT(allocator), [](gpointer, GObject*) { --g_alive; }, nullptr);
  return allocator;
}

GstMemory* gst_dmabuf_allocator_alloc(GstAllocator* allocator, gint fd, gsize size) {
  static auto* const real =
      nextDefinition<decltype(gst_dmabuf_allocator_alloc)>("gst_dmabuf_allocator_alloc");
  return fails(Fault::DmaBufAlloc) ? nullptr : noteAlive(real(allocator, fd, size));
}

GstMemory* gst_memory_new_wrapped(GstMemoryFlags flags, gpointer data, gsize maxsize, gsize offset,
                                  gsize size, gpointer userData, GDestroyNotify notify) {
  static auto* const real =
      nextDefinition<decltype(gst_memory_new_wrapped)>("gst_memory_new_wrapped");
  return fails(Fault::MemoryNew)
             ? nullptr
             : noteAlive(real(flags, data, maxsize, offset, size, userData, notify));
}

}  // extern "C"

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return fails(Fault::HolderNew) ? nullptr : ::operator new(size);
}

namespace {

using media_backend::GstVideoBackend;

TEST(FrameWrappingFaults, LeaveNothingBehind) {
  const struct {
    const char* name;
    media_backend::GstVideoBackend::Profile profile;
    Fault fault;
    int aliveOnSuccess;
  } rows[] = {
      {"i.MX, no fault", imxProfile(), Fault::None, 3},  // buffer, memory, the memory's allocator
      {"i.MX, gst_buffer_new", imxProfile(), Fault::BufferNew, 0},
      {"i.MX, gst_dmabuf_allocator_new", imxProfile(), Fault::AllocatorNew, 0},
      {"i.MX, dup", imxProfile(), Fault::Dup, 0},
      {"i.MX, gst_dmabuf_allocator_alloc", imxProfile(), Fault::DmaBufAlloc, 0},
      {"i.MX, holder", imxProfile(), Fault::HolderNew, 0},
      {"NVIDIA, no fault", nvidiaProfile(), Fault::None, 2},  // buffer, memory
      {"NVIDIA, gst_buffer_new", nvidiaProfile(), Fault::BufferNew, 0},
      {"NVIDIA, holder", nvidiaProfile(), Fault::HolderNew, 0},
      {"NVIDIA, gst_memory_new_wrapped", nvidiaProfile(), Fault::MemoryNew, 0},
  };
  const TestFrame frame;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const GstVideoBackend backend(row.profile);
    const auto keepAlive = std::make_shared<int>();
    const std::ptrdiff_t descriptors = openDescriptors();

    g_failed = 0;
    g_armed = row.fault;
    GstBuffer* buffer = backend.wrapFrame(frame.handle(), keepAlive);
    g_armed = Fault::None;

    const bool succeeds = row.fault == Fault::None;
    EXPECT_EQ(buffer != nullptr, succeeds);
    EXPECT_EQ(g_alive, row.aliveOnSuccess);
    EXPECT_EQ(keepAlive.use_count(), succeeds ? 2 : 1);
    if (!succeeds) {
      EXPECT_EQ(g_failed, 1);
    }
    gst_clear_buffer(&buffer);
    EXPECT_EQ(g_alive, 0);
    EXPECT_EQ(keepAlive.use_count(), 1);
    EXPECT_EQ(openDescriptors(), descriptors);
  }
}

}  // namespace
