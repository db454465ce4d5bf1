#include "base/StopSignal.h"

#include <atomic>
#include <csignal>

#include <unistd.h>

#include "base/StationError.h"

namespace station {
namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may not take a lock");

void onSignal(int /*signal*/) {
  if (stopRequested.exchange(true)) {
    _exit(static_cast<int>(ExitCode::Interrupted));
  }
}

void setHandler(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const int number : stopSignals()) {
    sigaction(number, &action, nullptr);
  }
}

bool isIgnored(int number) {
  struct sigaction action {};
  sigaction(number, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

const std::vector<int>& stopSignals() {
  static const std::vector<int> kSignals = isIgnored(SIGHUP)
                                               ? std::vector<int>{SIGINT, SIGTERM}
                                               : std::vector<int>{SIGINT, SIGTERM, SIGHUP};
  return kSignals;
}

StopSignal::StopSignal() {
  stopRequested = false;
  setHandler(onSignal);
}

StopSignal::~StopSignal() {
  setHandler(SIG_DFL);
}

bool StopSignal::requested() const {
  return stopRequested;
}

void exitOnSignal() {
  stopRequested = true;
  setHandler(onSignal);
}

void ignoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace station
