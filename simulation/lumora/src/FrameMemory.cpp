#include <lumora/FrameMemory.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace lumora {
namespace {

constexpr const char* kHeaps = "/dev/dma_heap";
constexpr const char* kUdmabuf = "/dev/udmabuf";
constexpr const char* kMemfd = "memfd";

// The contiguous ones have a name of their own on each kind of board.
constexpr const char* kHeapNames[] = {"linux,cma", "reserved", "default_cma_region", "system"};

// A descriptor that is closed, with `errno` kept.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    const int before = errno;
    if (fd_ >= 0) {
      close(fd_);
    }
    errno = before;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }

 private:
  const int fd_;
};

int allocateFromHeap(const std::string& heap, std::uint64_t size) {
  const Descriptor device(open(heap.c_str(), O_RDONLY | O_CLOEXEC));
  dma_heap_allocation_data request = {};
  request.len = size;
  request.fd_flags = O_RDWR | O_CLOEXEC;
  const bool done = device.get() >= 0 && ioctl(device.get(), DMA_HEAP_IOCTL_ALLOC, &request) == 0;
  return done ? static_cast<int>(request.fd) : -1;
}

int allocateFile(std::uint64_t size) {
  const int fd = memfd_create("lumora-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) != 0) {
    const Descriptor closed(fd);
    return -1;
  }
  return fd;
}

// The kernel takes only files that cannot shrink, in whole pages.
int allocateUdmabuf(std::uint64_t size) {
  const Descriptor device(open(kUdmabuf, O_RDWR | O_CLOEXEC));
  const Descriptor file(device.get() >= 0 ? allocateFile(size) : -1);
  if (file.get() < 0 || fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0) {
    return -1;
  }
  udmabuf_create request = {};
  request.memfd = static_cast<std::uint32_t>(file.get());
  request.flags = UDMABUF_FLAGS_CLOEXEC;
  request.size = size;
  return ioctl(device.get(), UDMABUF_CREATE, &request);
}

std::uint64_t wholePages(std::uint64_t size) {
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

void synchronise(int fd, std::uint64_t flags) {
  dma_buf_sync sync = {};
  sync.flags = flags;
  while (ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync) != 0 && (errno == EINTR || errno == EAGAIN)) {
  }
}

}  // namespace

std::vector<std::string> frameMemoryPlaces(FrameMemoryKind kind) {
  std::vector<std::string> places;
  std::error_code error;
  switch (kind) {
    case FrameMemoryKind::Heap:
      for (const char* const name : kHeapNames) {
        const std::filesystem::path heap = std::filesystem::path(kHeaps) / name;
        if (std::filesystem::exists(heap, error)) {
          places.push_back(heap);
        }
      }
      break;
    case FrameMemoryKind::Udmabuf:
      if (std::filesystem::exists(kUdmabuf, error)) {
        places.emplace_back(kUdmabuf);
      }
      break;
    case FrameMemoryKind::Memfd:
      places.emplace_back(kMemfd);
      break;
  }
  return places;
}

std::unique_ptr<FrameMemory> FrameMemory::allocate(const std::string& place, std::uint64_t size) {
  const std::uint64_t bytes = wholePages(size);
  const bool isFile = place == kMemfd;
  const int fd = isFile              ? allocateFile(bytes)
                 : place == kUdmabuf ? allocateUdmabuf(bytes)
                                     : allocateFromHeap(place, bytes);
  if (fd < 0) {
    return nullptr;
  }
  std::unique_ptr<FrameMemory> memory(new FrameMemory(bytes, fd, !isFile));
  void* const mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) {
    return nullptr;
  }
  memory->pixels_ = static_cast<std::uint8_t*>(mapped);
  return memory;
}

FrameMemory::FrameMemory(std::uint64_t size, int fd, bool isDmaBuf)
    : size_(size), fd_(fd), isDmaBuf_(isDmaBuf) {}

FrameMemory::~FrameMemory() {
  const Descriptor closed(fd_);
  if (pixels_ != nullptr) {
    munmap(pixels_, size_);
  }
}

FrameMemory::Writing::Writing(FrameMemory& memory) : memory_(memory) {
  if (memory_.isDmaBuf_) {
    synchronise(memory_.fd_, DMA_BUF_SYNC_START | DMA_BUF_SYNC_WRITE);
  }
}

FrameMemory::Writing::~Writing() {
  if (memory_.isDmaBuf_) {
    synchronise(memory_.fd_, DMA_BUF_SYNC_END | DMA_BUF_SYNC_WRITE);
  }
}

}  // namespace lumora
