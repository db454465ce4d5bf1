#include "serve/ClientLog.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

namespace station {
namespace {

constexpr std::size_t kFirstRefusal = 2;
// In the order of ClientEvent.
constexpr const char* kEventNames[] = {"connected", "left", "session", "password",
                                       "limit",     "host", "request", "time"};

}  // namespace

void ClientLog::add(ClientEvent event, const std::string& address, const std::string& text) {
  const std::lock_guard lock(mutex_);
  Count& count = counts_.at(static_cast<std::size_t>(event));
  ++count.all;
  if (++count.lines <= kLinesPerMinute && !quiet_) {
    std::fprintf(stderr, "%s %s\n", address.c_str(), text.c_str());
  }
}

void ClientLog::endMinute() {
  const std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < kEvents; ++i) {
    const std::uint64_t lines = std::exchange(counts_[i].lines, 0);
    if (lines > kLinesPerMinute && !quiet_) {
      std::fprintf(stderr, "%" PRIu64 " more lines left out: %s%s\n", lines - kLinesPerMinute,
                   i >= kFirstRefusal ? "refused, " : "", kEventNames[i]);
    }
  }
}

Metrics::Figures ClientLog::figures() const {
  const std::lock_guard lock(mutex_);
  Metrics::Figures figures;
  for (std::size_t i = kFirstRefusal; i < kEvents; ++i) {
    figures.push_back({"refused", Metrics::Kind::Counter, "Requests and clients that were refused.",
                       counts_[i].all, kEventNames[i]});
  }
  return figures;
}

}  // namespace station
