#include "base/Callback.h"

#include <exception>
#include <mutex>
#include <utility>

namespace station {
namespace {

struct Kept {
  std::mutex mutex;
  std::exception_ptr exception;
  std::function<void()> notify;
};

Kept& kept() {
  static Kept instance;
  return instance;
}

}  // namespace

void keepException() noexcept {
  const std::lock_guard lock(kept().mutex);
  if (kept().exception == nullptr) {
    kept().exception = std::current_exception();
  }
  if (kept().notify) {
    kept().notify();
  }
}

void throwKeptException() {
  const std::lock_guard lock(kept().mutex);
  if (const std::exception_ptr exception = std::exchange(kept().exception, nullptr)) {
    std::rethrow_exception(exception);
  }
}

bool hasKeptException() {
  const std::lock_guard lock(kept().mutex);
  return kept().exception != nullptr;
}

void notifyOfException(std::function<void()> call) {
  const std::lock_guard lock(kept().mutex);
  kept().notify = std::move(call);
}

}  // namespace station
