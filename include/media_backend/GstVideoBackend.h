#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#if __has_include(<lumora/FrameExport.h>)
#include <lumora/FrameExport.h>
#else  // picture libraries with a single header
#include <lumora/LumoraPicture.h>
#endif

#include <media_backend/Export.h>

namespace media_backend {

// The board's hardware video platform, and what depends on it: caps for the host's application
// sources, buffers around exported camera frames, and GStreamer pipeline descriptions.
//
// A backend is immutable: any number of threads may call its members at once, without a lock. Texts
// returned as `const char*` are constants or live as long as the backend; the caller never frees
// them.
//
// Descriptions are texts for gst_parse_launch(). A fragment begins with its own link mark and ends
// with one blank, so that they are concatenated after a source element from the host. A builder
// fails only by returning the empty string. Optional texts may be null or empty, which omits their
// piece; other texts and numbers are written as they are, unchecked.
class MEDIA_BACKEND_API GstVideoBackend {
 public:
  // Vendor of the hardware encoders.
  enum class Platform : std::int32_t { None = 0, Nvidia = 1, ImxVpu = 2 };

  // A video codec. Motion JPEG is for HTTP only, AV1 not for recording.
  enum class Codec : std::int32_t { Unknown = 0, H264 = 1, H265 = 2, Av1 = 3, Mjpeg = 4 };

  // Capabilities of a board. Encoder names are those of the platform, even if the board lacks the
  // encoder: only the flags say what is usable. By default the profile of no platform.
  struct Profile {
    Platform platform = Platform::None;  // None: all builders but rtspPayloaderChain() fail
    const char* name = "none";           // "none", "nvidia-nvmm" or "dmabuf-nv12-vpu"; a literal
    std::string inputConverter;          // element before the encoder, RTSP and recorder
    std::string uploadConverter;         // element before the encoder, HTTP
    std::string h264Encoder;             // element
    std::string h265Encoder;             // element
    std::string jpegEncoder;             // element
    bool hasH264 = false;                // H.264 is usable
    bool hasH265 = false;                // H.265 is usable
    bool hasAv1 = false;                 // AV1 is usable
    bool hasJpeg = false;                // Motion JPEG is usable
  };

  // Encoder settings; the library reads them during a call only. NVIDIA encoders take every field,
  // i.MX encoders `codec`, `bitrateBps` and `idrInterval`.
  struct EncoderConfig {
    Codec codec = Codec::Unknown;        // what to encode
    std::uint32_t bitrateBps = 4000000;  // bits per second; i.MX: whole kilobits, rounded down
    std::int32_t controlRate = 1;        // the encoder's own code: 0 variable, 1 constant rate
    std::int32_t presetLevel = 1;        // the encoder's own code
    std::uint32_t iframeInterval = 30;   // frames between I frames
    std::uint32_t idrInterval = 30;      // frames between IDR frames; i.MX: the GOP's length
  };

  // The backend of the process. The first call probes the GStreamer registry, so the host calls
  // gst_init() before it; later calls return at once. Elements registered later are ignored.
  // Running out of memory in the first call terminates the process.
  static const GstVideoBackend& instance() noexcept;

  // A backend for the given profile, whatever the board has.
  explicit GstVideoBackend(Profile profile);

  // The profile's name: "none", "nvidia-nvmm" or "dmabuf-nv12-vpu".
  const char* name() const;
  // Whether there is a platform.
  bool available() const;
  // Whether the profile says that the codec is usable.
  bool supports(Codec codec) const;

  // "h264", "h265" or "hevc", "av1", "mjpeg", "jpeg" or "jpg" in any case; else Unknown. No
  // blanks are trimmed.
  static Codec codecFromString(const std::string& text) noexcept;
  // "h264", "h265", "av1", "mjpeg", or "unknown" for any other value.
  static const char* codecName(Codec codec);

  // The profile's encoder element for H.265 or H.264; "" if the profile names none.
  const char* h26xEncoder(bool h265) const;
  // Parser element for H.265 or H.264.
  const char* h26xParser(bool h265) const;
  // Media type of H.265 or H.264.
  const char* h26xCaps(bool h265) const;
  // RTP payloader element for H.265 or H.264.
  const char* h26xPayloader(bool h265) const;

  // Caps of raw camera frames: progressive NV12 of `width` x `height` pixels at `fps` frames per
  // second (negative counts as 0), in NVMM memory on NVIDIA. Colorimetry defaults to "bt709".
  // Returns caps that the caller owns; null without a platform or with a size below 1.
  GstCaps* makeInputCaps(int width, int height, int fps, bool squarePixels,
                         const char* colorimetry) const noexcept;

  // Sets those caps on `appsrc` (borrowed). False, with the source unchanged, if it is null or the
  // caps cannot be made.
  bool setInputCaps(GstAppSrc* appsrc, int width, int height, int fps, bool squarePixels,
                    const char* colorimetry) const noexcept;

  // Wraps an exported frame into a buffer without copying pixels: on i.MX one dma-buf memory with
  // video meta for the two NV12 planes, on NVIDIA the block from prepareStreamingFrameMemory(). The
  // buffer has no timestamps or flags; the caller sets them.
  //
  // Ownership: the caller owns the buffer. One reference to `keepAlive` (may be empty) lives until
  // GStreamer frees the buffer (i.MX) or its memory (NVIDIA), and is released on the thread that
  // does so. The host keeps `handle.fd`; the buffer owns a duplicate.
  // Errors: null if there is no platform, the layout is not that of an NV12 frame inside the buffer
  // (i.MX), prepareStreamingFrameMemory() fails (NVIDIA), or memory or descriptors run out; then
  // nothing is kept.
  GstBuffer* wrapFrame(const lumora::FrameExportHandle& handle,
                       std::shared_ptr<void> keepAlive) const noexcept;

  // Fragment: converts raw video to the encoder's input format.
  // Empty without a platform.
  std::string inputConversionChain(const char* colorimetry) const;

  // Fragment: the encoder, named "encoder", and its parser. `configInterval` is the parser's
  // property of that name (H.264 and H.265 only).
  // Empty for Mjpeg and for a codec that the profile does not support.
  std::string transportEncoderChain(const EncoderConfig& config, const char* configInterval) const;

  // Fragment: RTP payloader, named "pay0" as the GStreamer RTSP server requires, of payload type 96
  // and packets of at most `mtu` bytes. Follows transportEncoderChain().
  // Empty unless the codec is H264, H265 or Av1; the profile is not consulted.
  std::string rtspPayloaderChain(Codec codec, unsigned int mtu) const;

  // Fragment: converts raw video to the encoder's input format on the HTTP path. This one and
  // httpEncoderChain() begin with "! ", so the source element in front has to end with a blank.
  // Empty without a platform.
  std::string httpUploadChain(const char* colorimetry) const;

  // Rest of a description after httpUploadChain(): the encoder, named "encoder", and an appsink
  // named "sink" that emits a signal for every encoded picture. Uses only `codec` and `bitrateBps`;
  // for Mjpeg and on i.MX the encoder's own default replaces the bit rate.
  // Empty for a codec that the profile does not support.
  std::string httpEncoderChain(const EncoderConfig& config) const;

  // Whole description of a recorder into MPEG-TS segments of at most `segmentSeconds` seconds.
  // After parsing, the host finds by name: "mysrc" (video, caps by setInputCaps), "klvsrc" (KLV,
  // only `withKlv`), "audiosrc" (Opus, mono at 48000 Hz, only `withAudio`), "enc", "vparse", and
  // "sink", the splitmuxsink whose location it has to set. Sources take buffers with timestamps and
  // never block. The muxer waits for the stream that is furthest behind. The others queue up to
  // 1 s meanwhile, at most 8 packets of KLV, 64 of audio, and 200 pictures or 10 MB of encoded
  // video; then KLV and audio drop their oldest packets, and video its oldest frame before the
  // encoder. A stream that comes too early loses its own buffers, one that comes too late costs
  // those of the others.
  //
  // Before GStreamer 1.20, splitmuxsink ignores muxer-factory: append " muxer=mpegtsmux". appsrc
  // lacks "max-buffers" there: with KLV or audio, parsing reports
  // GST_PARSE_ERROR_NO_SUCH_PROPERTY and still returns the pipeline, unless errors are fatal.
  //
  // Empty unless the codec is H264 or H265 and the profile supports it.
  std::string recorderPipeline(const EncoderConfig& config, unsigned int segmentSeconds,
                               bool withKlv, bool withAudio) const;

 private:
  Profile profile_;
};

}  // namespace media_backend
