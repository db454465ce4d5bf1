#include <lumora/LumoraPicture.h>

namespace lumora {

std::shared_ptr<LumoraPicture> LumoraPicture::fromNv12Host(const void* data, unsigned /*width*/,
                                                           unsigned /*height*/,
                                                           unsigned /*stride*/) {
  return data != nullptr ? std::make_shared<LumoraPicture>() : nullptr;
}

bool prepareStreamingFrameMemory(const FrameExportHandle& handle, StreamingFrameMemory& memory) {
  static unsigned char block[64];
  memory.data = block;
  memory.size = sizeof(block);
  return handle.valid;
}

}  // namespace lumora
