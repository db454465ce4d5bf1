#pragma once

#include <optional>
#include <string>

#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "base/Handles.h"
#include "base/StationError.h"

namespace station {

// Pipelines of the library's descriptions. Any thread.

// What a whole description is for.
enum class Use { Record, Rtsp, Http };
constexpr Use kUses[] = {Use::Record, Use::Rtsp, Use::Http};
const char* nameOf(Use use);  // "record", "rtsp" or "http"
const char* displayName(Use use);

struct DescriptionSettings {
  media_backend::GstVideoBackend::EncoderConfig encoder;
  unsigned int segmentSeconds = 60;  // Record only, like the next two
  bool klv = false, audio = false;
  unsigned int mtu = 1400;    // Rtsp only: bytes of an RTP packet
  std::string colorimetry{};  // Http only: of the frames, as in caps
};

// Colorimetry of JPEG, which cannot say another one: full-range BT.601.
constexpr const char* kJpegColorimetry = "1:4:0:0";

// Caps between two videoconverts where 8 bits would round the colours.
constexpr const char* kExactRgb = "video/x-raw,format=ARGB64";

// config-interval of streams: parameter sets with every key frame.
constexpr const char* kConfigInterval = "-1";

// The whole description that the station runs; a server's begins with the appsrc "camera". Empty if
// the backend has none for the codec.
std::string describe(const media_backend::GstVideoBackend& backend, Use use,
                     const DescriptionSettings& settings);
// The same; throws StationError (CodecNotUsable) instead of returning nothing.
std::string requireDescription(const media_backend::GstVideoBackend& backend, Use use,
                               const DescriptionSettings& settings);

// Builds `description`; `what` names it in the error. Throws StationError (Pipeline).
PipelinePtr buildPipeline(const std::string& description, const std::string& what);

// The element of that name, at any depth. Throws StationError (Pipeline) if there is none.
GstPtr<GstElement> findElement(GstElement* bin, const char* name);

// Whether its state is PLAYING. Before that, a live source has no base time, and do-timestamp
// stamps the absolute clock time, for which the pipeline would wait.
bool isPlaying(GstElement* element);

// An error message of a pipeline's bus.
struct BusError {
  GQuark domain;
  int code;
  std::string element;  // that has posted it
  std::string message;
  std::string detail;  // the element's own addition, often empty

  static BusError parse(GstMessage* message);
  // The next one of the bus, after `timeout` at most.
  static std::optional<BusError> take(GstBus* bus, GstClockTime timeout = 0);

  bool is(GQuark otherDomain, int otherCode) const {
    return domain == otherDomain && code == otherCode;
  }
  StationError as(ExitCode exitCode = ExitCode::Pipeline) const;
};

}  // namespace station
