#include "base/Metrics.h"

#include <utility>

namespace station {

Metrics& Metrics::process() {
  static Metrics metrics;
  return metrics;
}

Metrics::Publication::Publication(std::string name, std::function<Figures()> read) {
  const std::lock_guard lock(process().mutex_);
  std::list<Part>& parts = process().parts_;
  place_ = parts.insert(parts.end(), {std::move(name), std::move(read)});
}

Metrics::Publication::~Publication() {
  const std::lock_guard lock(process().mutex_);
  process().parts_.erase(place_);
}

void Metrics::visit(const std::function<void(const std::string& part, const Figures&)>& visit) {
  const std::lock_guard lock(process().mutex_);
  for (const Part& part : process().parts_) {
    visit(part.name, part.read());
  }
}

}  // namespace station
