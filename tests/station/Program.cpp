#include "Program.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

// Without its end; empty at the stream's end.
std::string nextLine(GDataInputStream* stream) {
  g_autofree gchar* line = g_data_input_stream_read_line(stream, nullptr, nullptr, nullptr);
  return line != nullptr ? line : "";
}

// What has been read beyond the last line.
std::string buffered(GDataInputStream* stream) {
  gsize count = 0;
  const void* const bytes =
      g_buffered_input_stream_peek_buffer(G_BUFFERED_INPUT_STREAM(stream), &count);
  return {static_cast<const char*>(bytes), count};
}

}  // namespace

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
  out_ = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process_));
  err_ = g_data_input_stream_new(g_subprocess_get_stderr_pipe(process_));
  for (GDataInputStream* const stream : {out_, err_}) {
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(stream), FALSE);
  }
}

Program::~Program() {
  g_object_unref(out_);
  g_object_unref(err_);
  g_subprocess_force_exit(process_);
  g_object_unref(process_);
}

std::string Program::readLine() {
  return nextLine(out_);
}

void Program::awaitErrorLine(const std::string& line) {
  std::string next;
  do {
    next = nextLine(err_);
  } while (next != line && !next.empty());
  EXPECT_EQ(next, line) << "the program ended without it";
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
  return {exitCode, buffered(out_) + (out != nullptr ? out : ""),
          buffered(err_) + (err != nullptr ? err : "")};
}

Result run(const std::vector<std::string>& arguments) {
  return Program(arguments).wait();
}

bool hasRecorded(const Result& result) {
  const bool isComplete =
      std::regex_search(result.out, std::regex("recorded .*, 0 dropped, [^;]*$"));
  return result.exitCode == (isComplete ? 0 : 9);
}

std::vector<std::string> station(const std::vector<std::string>& arguments,
                                 const std::vector<std::string>& more) {
  std::vector<std::string> command = {MEDIA_STATION};
  command.insert(command.end(), arguments.begin(), arguments.end());
  command.insert(command.end(), more.begin(), more.end());
  return command;
}
