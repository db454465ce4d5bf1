#pragma once

#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

inline double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Runs the function in a child process and returns the seconds of processor time that it took
// there.
template <typename Function>
double secondsInChild(Function function) {
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t child = fork();
  if (child == 0) {
    mlockall(MCL_CURRENT);  // a young process's page faults are not what is measured
    const double begin = threadSeconds();
    function();
    const double seconds = threadSeconds() - begin;
    _exit(write(ends[1], &seconds, sizeof(seconds)) == sizeof(seconds) ? EXIT_SUCCESS
                                                                       : EXIT_FAILURE);
  }
  close(ends[1]);
  double seconds = 0;
  const bool complete = read(ends[0], &seconds, sizeof(seconds)) == sizeof(seconds);
  close(ends[0]);
  waitpid(child, nullptr, 0);
  if (!complete) {
    throw std::runtime_error("a child ended without its time");
  }
  return seconds;
}
