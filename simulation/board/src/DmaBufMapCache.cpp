#include "DmaBufMapCache.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <gst/allocators/gstdmabuf.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "Guarded.h"

namespace simulated_board {
namespace {

// More than a camera has buffers. Limited, since a mapping keeps the memory of a freed buffer.
constexpr std::size_t kMaxMappings = 16;

class Mapping {
 public:
  // Maps the whole file `fd` for reading; `status` has its size.
  Mapping(int fd, const struct stat& status)
      : device_(status.st_dev),
        inode_(status.st_ino),
        size_(static_cast<std::size_t>(status.st_size)),
        bytes_(mmap(nullptr, size_, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0)) {}
  ~Mapping() {
    if (bytes_ != MAP_FAILED) {
      munmap(bytes_, size_);
    }
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  bool isOf(const struct stat& status) const {
    return status.st_dev == device_ && status.st_ino == inode_ &&
           static_cast<std::size_t>(status.st_size) == size_;
  }
  std::size_t size() const { return size_; }
  void* bytes() const { return bytes_ != MAP_FAILED ? bytes_ : nullptr; }

 private:
  const dev_t device_;
  const ino_t inode_;
  const std::size_t size_;
  void* const bytes_;
};

class DmaBufMapCache {
 public:
  // Returns a copy of the buffer over mapped memory; null if it cannot be mapped.
  GstBuffer* map(GstBuffer* frame);

 private:
  std::shared_ptr<Mapping> find(int fd);

  std::vector<std::shared_ptr<Mapping>> mappings_;  // most recently used last
};

// Begins or ends the processor's reading of a dma-buf. Memory files have no caches to synchronise.
void synchronise(int fd, guint64 begin) {
  dma_buf_sync sync = {};
  sync.flags = begin | DMA_BUF_SYNC_READ;
  while (ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync) != 0 && (errno == EINTR || errno == EAGAIN)) {
  }
}

// Keeps a mapped frame's memory valid while it is in use, which is one access for reading.
class Source {
 public:
  // `fd` is of the frame, whose reference it takes.
  Source(std::shared_ptr<Mapping> mapping, GstBuffer* frame, int fd)
      : mapping_(std::move(mapping)), frame_(frame), fd_(fd) {
    synchronise(fd_, DMA_BUF_SYNC_START);
  }
  ~Source() {
    synchronise(fd_, DMA_BUF_SYNC_END);
    gst_buffer_unref(frame_);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  static void destroy(gpointer source) { delete static_cast<Source*>(source); }

 private:
  const std::shared_ptr<Mapping> mapping_;
  GstBuffer* const frame_;
  const int fd_;
};

std::shared_ptr<Mapping> DmaBufMapCache::find(int fd) {
  struct stat status;
  // A dma-buf's inode has no file type before Linux 6.16.
  if (fstat(fd, &status) != 0 || status.st_size == 0 ||
      ((status.st_mode & S_IFMT) != 0 && !S_ISREG(status.st_mode))) {
    return nullptr;
  }
  const auto found = std::find_if(mappings_.begin(), mappings_.end(),
                                  [&](const auto& mapping) { return mapping->isOf(status); });
  if (found != mappings_.end()) {
    std::rotate(found, found + 1, mappings_.end());
    return mappings_.back();
  }
  auto mapping = std::make_shared<Mapping>(fd, status);
  if (mapping->bytes() == nullptr) {
    return nullptr;
  }
  GST_LOG("mapped dma-buf, inode %" G_GUINT64_FORMAT ", %" G_GSIZE_FORMAT " bytes",
          guint64{status.st_ino}, mapping->size());
  if (mappings_.size() == kMaxMappings) {
    mappings_.erase(mappings_.begin());
  }
  mappings_.push_back(std::move(mapping));
  return mappings_.back();
}

GstBuffer* DmaBufMapCache::map(GstBuffer* frame) {
  GstMemory* const memory = gst_buffer_peek_memory(frame, 0);
  if (gst_buffer_n_memory(frame) != 1 || gst_is_dmabuf_memory(memory) == FALSE) {
    return nullptr;
  }
  const int fd = gst_dmabuf_memory_get_fd(memory);
  const std::shared_ptr<Mapping> mapping = find(fd);
  gsize offset = 0;
  const gsize size = gst_memory_get_sizes(memory, &offset, nullptr);
  if (mapping == nullptr || offset > mapping->size() || size > mapping->size() - offset) {
    return nullptr;
  }
  GstBuffer* const mapped = gst_buffer_copy(frame);
  gst_buffer_replace_all_memory(
      mapped, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, mapping->bytes(), mapping->size(),
                                     offset, size, new Source(mapping, gst_buffer_ref(frame), fd),
                                     Source::destroy));
  return mapped;
}

GstPadProbeReturn mapFrame(GstPad*, GstPadProbeInfo* info, gpointer cache) {
  GstBuffer* const frame = GST_PAD_PROBE_INFO_BUFFER(info);
  GstBuffer* const mapped = static_cast<DmaBufMapCache*>(cache)->map(frame);
  if (mapped != nullptr) {
    GST_PAD_PROBE_INFO_DATA(info) = mapped;
    gst_buffer_unref(frame);
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

void cacheDmaBufMaps(GstPad* pad) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, guarded<mapFrame>, new DmaBufMapCache,
                    [](gpointer cache) { delete static_cast<DmaBufMapCache*>(cache); });
}

}  // namespace simulated_board
