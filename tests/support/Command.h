#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <glib.h>

// Runs a program found on PATH to its end; throws with its error output unless it succeeds.
inline void runCommand(const std::vector<std::string>& arguments) {
  std::vector<gchar*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<gchar*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL);
  g_autofree gchar* errors = nullptr;
  g_autoptr(GError) failure = nullptr;
  gint status = 0;
  if (!g_spawn_sync(nullptr, argv.data(), nullptr, flags, nullptr, nullptr, nullptr, &errors,
                    &status, &failure)) {
    throw std::runtime_error(failure->message);
  }
  if (status != 0) {
    throw std::runtime_error(arguments.front() + ": " + errors);
  }
}
