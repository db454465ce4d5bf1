#include "metadata/MetadataSource.h"

#include <cstdint>

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

}  // namespace

void writeTimes(lumora::LumoraPicture& picture, MetadataSource::Time time,
                std::chrono::nanoseconds elapsed) {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  picture.setMetadata(Keys::kUtcTimestampUs,
                      std::int64_t{duration_cast<microseconds>(time.time_since_epoch()).count()});
  picture.setMetadata(Keys::kSourceNs, std::int64_t{elapsed.count()});
}

}  // namespace station
