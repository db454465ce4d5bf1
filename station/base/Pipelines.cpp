#include "base/Pipelines.h"

namespace station {

PipelinePtr buildPipeline(const std::string& description, const std::string& what) {
  g_autoptr(GError) error = nullptr;
  GstElement* const parsed = gst_parse_launch(description.c_str(), &error);
  PipelinePtr pipeline(parsed != nullptr ? GST_ELEMENT(gst_object_ref_sink(parsed)) : nullptr);
  if (error != nullptr || pipeline == nullptr) {
    throw StationError(ExitCode::Pipeline, "cannot build " + what + ": " +
                                               (error != nullptr ? error->message : "no pipeline"));
  }
  return pipeline;
}

GstPtr<GstElement> findElement(GstElement* bin, const char* name) {
  GstPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(bin), name));
  if (element == nullptr) {
    throw StationError(ExitCode::Pipeline,
                       std::string("the pipeline has no element \"") + name + "\"");
  }
  return element;
}

StationError pipelineError(GstMessage* message) {
  g_autoptr(GError) error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  return {ExitCode::Pipeline, std::string("pipeline error from ") +
                                  GST_OBJECT_NAME(GST_MESSAGE_SRC(message)) + ": " +
                                  error->message};
}

}  // namespace station
