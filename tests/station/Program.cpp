#include "Program.h"

#include <gtest/gtest.h>

Program::Program(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  argv.push_back(nullptr);
  g_autoptr(GError) error = nullptr;
  process_ = g_subprocess_newv(argv.data(),
                               static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                                             G_SUBPROCESS_FLAGS_STDERR_PIPE),
                               &error);
  if (process_ == nullptr) {
    ADD_FAILURE() << arguments.front() << ": " << error->message;
    std::abort();
  }
}

Program::~Program() {
  g_subprocess_force_exit(process_);
  g_object_unref(process_);
}

void Program::signal(int number) {
  g_subprocess_send_signal(process_, number);
}

Result Program::wait() {
  g_autofree gchar* out = nullptr;
  g_autofree gchar* err = nullptr;
  g_subprocess_communicate_utf8(process_, nullptr, nullptr, &out, &err, nullptr);
  const int exitCode =
      g_subprocess_get_if_exited(process_) ? g_subprocess_get_exit_status(process_) : -1;
  return {exitCode, out != nullptr ? out : "", err != nullptr ? err : ""};
}

Result run(const std::vector<std::string>& arguments) {
  return Program(arguments).wait();
}

std::vector<std::string> station(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), MEDIA_STATION);
  return arguments;
}
