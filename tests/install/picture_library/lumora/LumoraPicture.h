#pragma once

#include <memory>
#include <string>

namespace lumora {

class LumoraPicture {
 public:
  struct BaseMetadata {
    // KEYS
  };

  static std::shared_ptr<LumoraPicture> fromNv12Host(const void* data, unsigned width,
                                                     unsigned height, unsigned stride);
};

}  // namespace lumora
