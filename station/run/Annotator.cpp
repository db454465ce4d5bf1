#include "run/Annotator.h"

namespace station {

Annotator::Annotator(const MetadataOptions& options)
    : source_(options.open()), encoder_(options.labels) {}

std::vector<std::uint8_t> Annotator::annotate(lumora::LumoraPicture& picture,
                                              MetadataSource::Time time) {
  first_ = first_.value_or(time);
  if (source_ != nullptr) {
    source_->annotate(picture, time);
  }
  writeTimes(picture, time, time - *first_);
  return encoder_.encode(picture);
}

}  // namespace station
