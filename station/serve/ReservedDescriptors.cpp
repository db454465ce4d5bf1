#include "serve/ReservedDescriptors.h"

#include <string>

#include <sys/resource.h>

#include "base/StationError.h"

namespace station {
namespace {

constexpr unsigned int kOtherDescriptors = 128;  // of the process

}  // namespace

ReservedDescriptors::ReservedDescriptors(unsigned int count) : count_(count) {
  const rlim_t wanted = rlim_t{total()} + count + kOtherDescriptors;
  struct rlimit limit {};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    if (wanted > limit.rlim_max || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      throw StationError(ExitCode::Usage,
                         "so many clients take up to " + std::to_string(wanted) +
                             " open files, but the system allows " +
                             std::to_string(limit.rlim_max) +
                             ": lower --max-clients or raise the limit (ulimit -n)");
    }
  }
  total() += count;
}

ReservedDescriptors::~ReservedDescriptors() {
  total() -= count_;
}

unsigned int& ReservedDescriptors::total() {
  static unsigned int total = 0;
  return total;
}

}  // namespace station
