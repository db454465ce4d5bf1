#include "camera/LiveCamera.h"

#include <algorithm>
#include <utility>

#include "base/Callback.h"
#include "camera/CallSource.h"

namespace station {
namespace {

using std::chrono::nanoseconds;

}  // namespace

LiveCamera::LiveCamera(std::unique_ptr<Camera> camera, std::function<void()> onChange,
                       Annotate annotate)
    : LiveSource(std::move(onChange)),
      camera_(std::move(camera)),
      annotate_(std::move(annotate)),
      picture_(nextPicture()),
      metrics_("camera", [this] {
        constexpr auto kCounter = Metrics::Kind::Counter;
        return Metrics::Figures{
            {"frames", kCounter, "Frames delivered.", frames_},
            {"losses", kCounter, "How often the camera was lost.", camera_->losses()}};
      }) {
  if (picture_ == nullptr) {
    throw StationError(ExitCode::Source, "source has no pictures: " + options().source);
  }
}

LiveCamera::~LiveCamera() {
  stop();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void LiveCamera::start() {
  thread_ = std::thread([this] { callGuarded([this] { run(); }); });
}

std::optional<StationError> LiveCamera::failure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

bool LiveCamera::hasEnded() const {
  const std::lock_guard lock(mutex_);
  return hasEnded_;
}

// Null at the end of a file that does not loop.
std::shared_ptr<lumora::LumoraPicture> LiveCamera::nextPicture() {
  auto picture = callSource(options().source, [this] { return camera_->next(); });
  if (picture == nullptr && options().loop) {
    throw StationError(ExitCode::Source, "source has ended: " + options().source);
  }
  return picture;
}

void LiveCamera::run() {
  try {
    deliverPictures();
  } catch (const StationError& error) {
    const std::lock_guard lock(mutex_);
    failure_ = error;
  }
  notifyOfChange();
}

void LiveCamera::deliverPictures() {
  while (picture_ != nullptr) {
    if (!isRunning()) {
      camera_->suspend();
      firstDelivered_ = {};
    }
    if (!waitForConsumers()) {
      return;
    }
    if (camera_->isLive()) {
      picture_ = nextPicture();
    }
    noteSignal();
    pace();
    deliverPicture();
    if (!camera_->isLive()) {
      picture_ = nextPicture();
    }
    ++number_;
  }
  const std::lock_guard lock(mutex_);
  hasEnded_ = picture_ == nullptr;
}

// A camera that is lost or comes back begins anew, after the numbers of the time in between.
void LiveCamera::noteSignal() {
  const bool hadSignal = std::exchange(hasSignal_, camera_->hasSignal());
  if (hadSignal != hasSignal_ && firstDelivered_ != Clock::time_point{}) {
    number_ = std::max(number_, numberAt(Clock::now()));
    firstDelivered_ = {};
  }
}

// Waits until the picture of a file is due. A device's gets the number of its time, if frames
// before it were lost.
void LiveCamera::pace() {
  if (firstDelivered_ == Clock::time_point{}) {
    first_ = number_;
    firstTime_ = std::chrono::system_clock::now();
  } else if (camera_->isLive()) {
    number_ = std::max(number_, numberAt(Clock::now()));
    return;
  }
  // Do not catch up after a late frame: at most one interval of backlog.
  const nanoseconds interval = timeOf(1);
  due_ = std::max(due_ + interval, Clock::now() - interval);
  std::this_thread::sleep_until(due_);
}

std::uint64_t LiveCamera::numberAt(Clock::time_point time) const {
  const nanoseconds elapsed = time - firstDelivered_;
  return first_ + format().rate.framesUntil(static_cast<GstClockTime>(elapsed.count()));
}

void LiveCamera::deliverPicture() {
  CameraFrame frame;
  frame.hasSignal = hasSignal_;
  frame.number = number_;
  frame.time = firstTime_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                timeOf(number_) - timeOf(first_));
  if (annotate_) {
    frame.klv = annotate_(*picture_, frame.time);
  }
  frame.picture = camera_->exportPicture(*picture_);
  deliver(frame);
  ++frames_;
  if (firstDelivered_ == Clock::time_point{}) {  // encoders may take long to start
    firstDelivered_ = Clock::now();
    due_ = firstDelivered_;
  }
}

nanoseconds LiveCamera::timeOf(std::uint64_t number) const {
  return nanoseconds(format().rate.timeOf(number));
}

}  // namespace station
