// What a call costs, in counts: allocations, system calls, and pages of pixels that are touched.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Profiles.h"
#include "support/WrapByHand.h"

namespace {

thread_local int t_allocations = 0;

}  // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCounts = false;  // a sanitizer's allocator stands in front
#else
constexpr bool kCounts = true;

// The C library's names, its own and those that it lets a program replace.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-*)
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) {
  ++t_allocations;
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  ++t_allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  ++t_allocations;
  return __libc_realloc(memory, size);
}

// NOLINTEND(bugprone-reserved-identifier,readability-*)
}  // extern "C"
#endif

namespace {

using media_backend::GstVideoBackend;
using Frame = std::shared_ptr<lumora::ExportedFrame>;

Frame exportedFrame() {
  return lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(std::string(768, 'x').data(), 32, 16, 32));
}

template <typename Function>
int allocationsOf(Function function) {
  function();  // what only a first call allocates
  const int before = t_allocations;
  function();
  return t_allocations - before;
}

// The system calls that the function makes when it runs for the second time, by number, and the one
// that ends the process. Empty where a process cannot be traced, as under an emulator.
template <typename Function>
std::vector<long> systemCallsOf(Function function) {
  const pid_t child = fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      _exit(EXIT_FAILURE);
    }
    function();
    kill(getpid(), SIGSTOP);  // raise() may go on with a system call of its own
    function();
    syscall(SYS_exit_group, 0);
  }
  std::vector<long> calls;
  int status = 0;
  waitpid(child, &status, 0);
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  while (WIFSTOPPED(status)) {
    __ptrace_syscall_info info{};
    if (WSTOPSIG(status) == (SIGTRAP | 0x80) &&
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(info), &info) > 0 &&
        info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      calls.push_back(static_cast<long>(info.entry.nr));
    }
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, &status, 0);
  }
  return calls;
}

struct Way {
  const char* name;
  GstVideoBackend backend;
  GstBuffer* (*byHand)(const Frame& frame);
  std::vector<long> systemCalls;
};

const std::vector<Way>& ways() {
  static const std::vector<Way> kWays = {
      {"i.MX", GstVideoBackend(imxProfile()), wrapDmaBufByHand, {SYS_dup, SYS_close}},
      {"NVIDIA", GstVideoBackend(nvidiaProfile()), wrapSurfaceByHand, {}},
  };
  return kWays;
}

TEST(Cost, WrappingAllocatesWhatGStreamerAndOneReferenceTake) {
  if (!kCounts) {
    GTEST_SKIP() << "a sanitizer allocates here";
  }
  const Frame frame = exportedFrame();
  for (const Way& way : ways()) {
    const int wrapped =
        allocationsOf([&] { gst_buffer_unref(way.backend.wrapFrame(frame->handle(), frame)); });
    const int byHand = allocationsOf([&] { gst_buffer_unref(way.byHand(frame)); });
    EXPECT_GT(byHand, 0) << way.name;
    EXPECT_EQ(wrapped, byHand) << way.name;
  }
}

TEST(Cost, WrappingDuplicatesADescriptorAndNothingMore) {
  if (!kCounts || systemCallsOf([] {}).empty()) {
    GTEST_SKIP() << "no process can be watched here, or a sanitizer makes calls of its own";
  }
  const Frame frame = exportedFrame();
  for (const Way& way : ways()) {
    std::vector<long> expected = way.systemCalls;
    expected.push_back(SYS_exit_group);
    EXPECT_EQ(
        systemCallsOf([&] { gst_buffer_unref(way.backend.wrapFrame(frame->handle(), frame)); }),
        expected)
        << way.name;
  }
}

// A file without content gets a page the moment that somebody looks at it.
TEST(Cost, WrappedPixelsAreNotTouched) {
  const Frame frame = exportedFrame();
  const int fd = memfd_create("untouched", MFD_CLOEXEC);
  lumora::FrameExportHandle handle = frame->handle();
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(handle.size)), 0);
  handle.fd = fd;
  const auto touched = [fd] {
    struct stat status {};
    fstat(fd, &status);
    return status.st_blocks;
  };
  for (const Way& way : ways()) {
    gst_buffer_unref(way.backend.wrapFrame(handle, frame));
    EXPECT_EQ(touched(), 0) << way.name;
  }
  g_autoptr(GstBuffer) buffer = ways()[0].backend.wrapFrame(handle, frame);
  GstMapInfo map;
  ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
  EXPECT_EQ(*static_cast<volatile guint8*>(map.data), 0);
  gst_buffer_unmap(buffer, &map);
  EXPECT_GT(touched(), 0);  // else nothing was watched
  close(fd);
}

TEST(Cost, BuildersAllocateTheirTextAlone) {
  if (!kCounts) {
    GTEST_SKIP() << "a sanitizer allocates here";
  }
  GstVideoBackend::EncoderConfig config;
  config.codec = GstVideoBackend::Codec::H265;
  for (const Way& way : ways()) {
    const GstVideoBackend& backend = way.backend;
    const auto count = [&](const char* builder, auto build) {
      EXPECT_EQ(allocationsOf([&] { EXPECT_FALSE(build().empty()); }), 1)
          << builder << " on " << way.name;
    };
    count("inputConversionChain", [&] { return backend.inputConversionChain("bt709"); });
    count("transportEncoderChain", [&] { return backend.transportEncoderChain(config, "-1"); });
    count("rtspPayloaderChain", [&] { return backend.rtspPayloaderChain(config.codec, 1400); });
    count("httpUploadChain", [&] { return backend.httpUploadChain("bt709"); });
    count("httpEncoderChain", [&] { return backend.httpEncoderChain(config); });
    count("recorderPipeline", [&] { return backend.recorderPipeline(config, 60, true, true); });
  }
}

}  // namespace
