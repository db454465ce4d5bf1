#include "doctor/DescriptionCheck.h"

#include <algorithm>
#include <string_view>

#include <gst/gst.h>

#include "base/Callback.h"

namespace station {
namespace {

constexpr std::string_view kBlanks = " \t\n";
constexpr std::string_view kLink = " ! ";

// GStreamer's messages put the element, property or caps between the first two quotation marks.
std::string firstQuoted(const std::string& message) {
  const std::size_t begin = message.find('"');
  const std::size_t end = message.find('"', begin + 1);
  return end == std::string::npos ? "" : message.substr(begin + 1, end - begin - 1);
}

// The piece of the description that begins with `text`, if there is only one.
void locate(DescriptionProblem& problem, const std::string& description, const std::string& text) {
  const std::string padded = " " + description;
  const std::size_t offset = padded.find(" " + text);
  if (text.empty() || offset == std::string::npos || padded.rfind(" " + text) != offset) {
    return;
  }
  problem.offset = offset;
  problem.length =
      std::min(description.find_first_of(kBlanks, offset), description.size()) - offset;
}

DescriptionProblem problemOf(const std::string& description, const GError& error,
                             GstParseContext* context) {
  DescriptionProblem problem;
  problem.message = error.message;
  // GStreamer counts elements whose properties it cannot set among the missing ones.
  g_auto(GStrv) unmade = gst_parse_context_get_missing_elements(context);
  for (gchar** name = unmade; name != nullptr && *name != nullptr; ++name) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(*name);
    if (factory == nullptr) {
      problem.missing.emplace_back(*name);
    }
  }
  const bool isProperty = error.code == GST_PARSE_ERROR_NO_SUCH_PROPERTY ||
                          error.code == GST_PARSE_ERROR_COULD_NOT_SET_PROPERTY;
  locate(problem, description, firstQuoted(problem.message) + (isProperty ? "=" : ""));
  return problem;
}

void noteFactory(const GValue* value, gpointer elements) {
  GstElementFactory* const factory =
      gst_element_get_factory(GST_ELEMENT(g_value_get_object(value)));
  if (factory != nullptr) {
    static_cast<std::vector<std::string>*>(elements)->emplace_back(GST_OBJECT_NAME(factory));
  }
}

}  // namespace

DescriptionCheck checkDescription(const std::string& description) {
  DescriptionCheck check;
  g_autoptr(GstParseContext) context = gst_parse_context_new();
  g_autoptr(GError) error = nullptr;
  GstElement* const parsed =
      gst_parse_launch_full(description.c_str(), context, GST_PARSE_FLAG_NONE, &error);
  if (parsed != nullptr) {
    g_autoptr(GstElement) pipeline = GST_ELEMENT(gst_object_ref_sink(parsed));
    if (GST_IS_BIN(pipeline)) {
      g_autoptr(GstIterator) all = gst_bin_iterate_recurse(GST_BIN(pipeline));
      gst_iterator_foreach(all, guarded<noteFactory>, &check.elements);
    }
  }
  if (error != nullptr) {
    check.problem = problemOf(description, *error, context);
  }
  return check;
}

std::string markProblem(const std::string& description, const DescriptionProblem& problem) {
  if (problem.length == 0) {
    return description;
  }
  const std::size_t link = description.rfind(kLink, problem.offset);
  const std::size_t begin = link == std::string::npos ? 0 : link + 1;
  const std::size_t end = description.find(kLink, problem.offset);
  return description.substr(begin, end - begin) + "\n" + std::string(problem.offset - begin, ' ') +
         std::string(problem.length, '^');
}

}  // namespace station
