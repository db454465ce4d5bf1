#include "record/SegmentHook.h"

#include <cstdio>
#include <utility>

#include <gio/gio.h>
#include <unistd.h>

#include "base/Callback.h"
#include "base/StationError.h"

namespace station {
namespace {

void leaveProcessGroup(gpointer /*unused*/) {
  setpgid(0, 0);
}

// What went wrong; empty for nothing.
std::string runProgram(const std::vector<std::string>& words) {
  std::vector<const char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) {
    arguments.push_back(word.c_str());
  }
  arguments.push_back(nullptr);
  g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
  g_subprocess_launcher_set_child_setup(launcher, leaveProcessGroup, nullptr, nullptr);
  g_subprocess_launcher_take_stdout_fd(launcher, dup(STDERR_FILENO));
  g_autoptr(GError) error = nullptr;
  g_autoptr(GSubprocess) program = g_subprocess_launcher_spawnv(launcher, arguments.data(), &error);
  if (program != nullptr && g_subprocess_wait_check(program, nullptr, &error) != FALSE) {
    return {};
  }
  return error->message;
}

}  // namespace

std::vector<std::string> SegmentHook::parse(const std::string& command) {
  g_auto(GStrv) words = nullptr;
  g_autoptr(GError) error = nullptr;
  if (g_shell_parse_argv(command.c_str(), nullptr, &words, &error) == FALSE) {
    throw StationError(ExitCode::Usage, std::string("--on-segment: ") + error->message);
  }
  g_autofree gchar* program = g_find_program_in_path(words[0]);
  if (program == nullptr) {
    throw StationError(ExitCode::Usage, std::string("--on-segment: no program ") + words[0]);
  }
  return {words, words + g_strv_length(words)};
}

SegmentHook::~SegmentHook() {
  {
    const std::lock_guard lock(mutex_);
    isOver_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void SegmentHook::push(const std::vector<std::string>& words,
                       const std::filesystem::path& segment) {
  {
    const std::lock_guard lock(mutex_);
    calls_.push_back({words, segment});
    if (!thread_.joinable()) {
      thread_ = std::thread([this] { callGuarded([this] { run(); }); });
    }
  }
  wake_.notify_one();
}

void SegmentHook::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return isOver_ || !calls_.empty(); });
    if (calls_.empty()) {
      return;
    }
    const Call call = std::move(calls_.front());
    calls_.pop_front();
    lock.unlock();
    carryOut(call);
    lock.lock();
  }
}

void SegmentHook::carryOut(const Call& call) {
  std::vector<std::string> words = call.words;
  words.push_back(call.segment.string());
  const std::string problem =
      std::filesystem::exists(call.segment) ? runProgram(words) : "deleted before its turn";
  if (!problem.empty()) {
    ++failures_;
    std::fprintf(stderr, "on-segment: %s: %s\n", call.segment.c_str(), problem.c_str());
  }
}

}  // namespace station
