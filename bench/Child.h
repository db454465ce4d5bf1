#pragma once

#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

// Runs the function in a child process and returns the seconds that it took there.
template <typename Function>
double secondsInChild(Function function) {
  using std::chrono::steady_clock;

  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t child = fork();
  if (child == 0) {
    const steady_clock::time_point begin = steady_clock::now();
    function();
    const double seconds = std::chrono::duration<double>(steady_clock::now() - begin).count();
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
