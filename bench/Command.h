#pragma once

#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

// A running shell command with its output in a file; it ends with the object.
class Command {
 public:
  Command(std::string command, std::string output)
      : command_(std::move(command)), output_(std::move(output)), process_(fork()) {
    if (process_ == 0) {
      const int file = open(output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(file, STDOUT_FILENO);
      dup2(file, STDERR_FILENO);
      execl("/bin/sh", "sh", "-c", ("exec " + command_).c_str(), nullptr);
      _exit(127);
    }
  }
  ~Command() { end(); }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Seconds of processor time that it takes in the next `seconds`. Throws if it ends before.
  double measure(double seconds) const {
    const double before = processorTime();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    if (waitpid(process_, nullptr, WNOHANG) != 0) {
      throw std::runtime_error("ended: " + command_ + "\n" + output());
    }
    return processorTime() - before;
  }

  // Ends it, and returns its output.
  std::string end() {
    if (process_ > 0) {
      kill(process_, SIGTERM);
      waitpid(std::exchange(process_, -1), nullptr, 0);
    }
    return output();
  }

  // Waits for the text in its output, and returns what follows up to a blank.
  std::string waitFor(const std::string& text) const {
    for (int tenths = 0; tenths < 300; ++tenths) {
      const std::string all = output();
      const std::size_t at = all.find(text);
      if (at != std::string::npos && all.find('\n', at) != std::string::npos) {
        const std::size_t begin = at + text.size();
        return all.substr(begin, all.find_first_of(" \n", begin) - begin);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    throw std::runtime_error("no \"" + text + "\" of: " + command_ + "\n" + output());
  }

 private:
  std::string output() const {
    std::ifstream file(output_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  double processorTime() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(process_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
      throw std::runtime_error("no processor time of: " + command_);
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }

  const std::string command_;
  const std::string output_;
  pid_t process_;
};
