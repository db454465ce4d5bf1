#include "camera/LiveCamera.h"

#include <algorithm>
#include <utility>

#include "base/Callback.h"
#include "camera/CallSource.h"

namespace station {
namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

}  // namespace

LiveCamera::Subscription::Subscription(LiveCamera& camera, Consumer consumer) : camera_(camera) {
  {
    const std::lock_guard lock(camera_.mutex_);
    place_ = camera_.consumers_.insert(camera_.consumers_.end(), std::move(consumer));
  }
  camera_.changed_.notify_all();
  camera_.onChange_();
}

LiveCamera::Subscription::~Subscription() {
  {
    const std::lock_guard lock(camera_.mutex_);
    camera_.consumers_.erase(place_);
  }
  camera_.onChange_();
}

LiveCamera::LiveCamera(std::unique_ptr<Camera> camera, std::function<void()> onChange,
                       Annotate annotate)
    : camera_(std::move(camera)),
      onChange_(std::move(onChange)),
      annotate_(std::move(annotate)),
      picture_(nextPicture()),
      metrics_("camera", [this] {
        return Metrics::Figures{{"frames", Metrics::Kind::Counter, "Frames delivered.", frames_}};
      }) {
  thread_ = std::thread([this] { callGuarded([this] { run(); }); });
}

LiveCamera::~LiveCamera() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

bool LiveCamera::isRunning() const {
  const std::lock_guard lock(mutex_);
  return !consumers_.empty();
}

std::optional<StationError> LiveCamera::failure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

std::shared_ptr<lumora::LumoraPicture> LiveCamera::nextPicture() {
  auto picture = callSource(options().source, [this] { return camera_->next(); });
  if (picture == nullptr) {
    throw StationError(ExitCode::Source, "source has ended: " + options().source);
  }
  return picture;
}

void LiveCamera::run() {
  const nanoseconds interval(format().rate.timeOf(1));
  steady_clock::time_point due;
  try {
    while (waitForConsumers()) {
      if (camera_->isLive()) {
        picture_ = nextPicture();
      } else {
        // Do not catch up after a late frame: at most one interval of backlog.
        due = std::max(due + interval, steady_clock::now() - interval);
        std::this_thread::sleep_until(due);
      }
      const Bytes klv = annotate_(*picture_);
      deliver(camera_->exportPicture(*picture_), klv);
      if (!camera_->isLive()) {
        picture_ = nextPicture();
      }
    }
  } catch (const StationError& error) {
    {
      const std::lock_guard lock(mutex_);
      failure_ = error;
    }
    onChange_();
  }
}

// Whether to go on.
bool LiveCamera::waitForConsumers() {
  std::unique_lock lock(mutex_);
  if (consumers_.empty()) {
    camera_->suspend();
  }
  changed_.wait(lock, [this] { return stop_ || !consumers_.empty(); });
  return !stop_;
}

void LiveCamera::deliver(const std::shared_ptr<lumora::ExportedFrame>& frame, const Bytes& klv) {
  const std::lock_guard lock(mutex_);
  for (const Consumer& consumer : consumers_) {
    consumer(frame, klv);
  }
  ++frames_;
}

}  // namespace station
