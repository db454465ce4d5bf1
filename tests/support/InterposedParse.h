#pragma once

// Stands in front of gst_parse_launch(): shows what a program parses, or parses something else.
// For one source file of a program, that includes it before its own declarations.

#include <mutex>
#include <string>

#include <gst/gst.h>

#include "support/Interpose.h"

// NOLINTBEGIN(misc-definitions-in-headers)

namespace {

std::mutex g_mutex;
std::string g_description;                 // the last one that was parsed
const char* g_otherDescription = nullptr;  // parsed in place of every one, empty for none at all
int g_parses = 0;                          // how many so far
GstElement* g_pipeline = nullptr;          // the last one, while its source has it
void (*g_onParsed)() = nullptr;            // does what has to be done before it starts

}  // namespace

extern "C" GstElement* gst_parse_launch(const gchar* description, GError** error) {
  static auto* const real = nextDefinition<decltype(gst_parse_launch)>("gst_parse_launch");
  const std::lock_guard<std::mutex> lock(g_mutex);
  ++g_parses;
  g_description = g_otherDescription != nullptr ? g_otherDescription : description;
  g_pipeline = g_description.empty() ? nullptr : real(g_description.c_str(), error);
  if (g_onParsed != nullptr) {
    g_onParsed();
  }
  return g_pipeline;
}
// NOLINTEND(misc-definitions-in-headers)
