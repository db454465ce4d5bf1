#include "base/StopSignal.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include <sys/eventfd.h>
#include <unistd.h>

#include "base/StationError.h"

namespace station {
namespace {

std::atomic<bool> stopRequested{false};
std::atomic<int> stopDescriptor{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "a signal handler may not take a lock");

void onSignal(int /*signal*/) {
  if (stopRequested.exchange(true)) {
    _exit(static_cast<int>(ExitCode::Interrupted));
  }
  const int error = errno;
  const eventfd_t one = 1;
  // Cannot fail: the counter is far from its end.
  static_cast<void>(!write(stopDescriptor, &one, sizeof(one)));
  errno = error;
}

bool isIgnored(int number) {
  struct sigaction action {};
  sigaction(number, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

int watchStopSignals(bool isHangUpStop) {
  stopDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stopDescriptor < 0) {
    throw StationError(ExitCode::Internal, "no descriptor for signals");
  }
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    if (number != SIGHUP || (isHangUpStop && !isIgnored(number))) {
      sigaction(number, &action, nullptr);
    }
  }
  return stopDescriptor;
}

bool isStopRequested() {
  return stopRequested;
}

void ignoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace station
