// The exact texts of the pipeline descriptions.

#include <locale>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <media_backend/GstVideoBackend.h>

#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using EncoderConfig = GstVideoBackend::EncoderConfig;
using Profile = GstVideoBackend::Profile;

// Groups digits, as a host's locale may do: descriptions have to stay plain.
class GroupDigits : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

class Descriptions : public testing::Test {
 protected:
  ~Descriptions() override { std::locale::global(before_); }

 private:
  std::locale before_ = std::locale::global(std::locale(std::locale(), new GroupDigits));
};

EncoderConfig config(Codec codec) {
  return {codec, 4000000, 1, 1, 30, 30};
}

// A complete board with other converters.
Profile with(Profile profile, const char* converter) {
  profile.inputConverter = profile.uploadConverter = converter;
  return profile;
}

TEST_F(Descriptions, InputConversion) {
  const std::tuple<Profile, const char*, const char*> rows[] = {
      {nvidiaProfile(), "bt709",
       "  ! nvvidconv   ! video/x-raw(memory:NVMM),format=NV12,colorimetry=bt709 "},
      {with(nvidiaProfile(), "nvvideoconvert"), nullptr,
       "  ! nvvideoconvert   ! video/x-raw(memory:NVMM),format=NV12 "},
      {imxProfile(), "bt709",
       "  ! video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1,"
       "colorimetry=bt709 "},
      {imxProfile(), "",
       "  ! video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1 "},
      {Profile{}, "bt709", ""},
  };
  for (const auto& [profile, colorimetry, text] : rows) {
    EXPECT_EQ(GstVideoBackend(profile).inputConversionChain(colorimetry), text);
  }
}

TEST_F(Descriptions, HoldTextsOfAnyLength) {
  for (const std::size_t length : {100U, 5000U}) {  // shorter and longer than the room at first
    const std::string value(length, 'x');
    EXPECT_EQ(GstVideoBackend(nvidiaProfile()).inputConversionChain(value.c_str()),
              "  ! nvvidconv   ! video/x-raw(memory:NVMM),format=NV12,colorimetry=" + value + " ");
  }
}

TEST_F(Descriptions, TransportEncoder) {
  Profile imxWithAv1 = imxProfile();
  imxWithAv1.hasAv1 = true;
  const char* const av1 =
      "  ! nvv4l2av1enc name=encoder maxperf-enable=1            iframeinterval=30 "
      "idrinterval=30 control-rate=1            bitrate=4000000            preset-level=1   ! "
      "av1parse name=parser   ! video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu ";
  const std::tuple<Profile, EncoderConfig, const char*, const char*> rows[] = {
      {nvidiaProfile(), EncoderConfig{Codec::H265, 999, -1, -2147483647 - 1, 4294967295, 60}, "",
       "  ! nvv4l2h265enc name=encoder maxperf-enable=1            iframeinterval=4294967295 "
       "idrinterval=60 control-rate=-1            bitrate=999            "
       "preset-level=-2147483648   ! h265parse "},
      {nvidiaProfile(), config(Codec::Av1), "-1", av1},
      {imxWithAv1, config(Codec::Av1), "-1", av1},
      {imxProfile(), config(Codec::H264), "-1",
       "  ! vpuenc_h264 name=encoder gop-size=30 bitrate=4000   ! h264parse config-interval=-1 "},
      {imxProfile(), EncoderConfig{Codec::H265, 4294966999, 0, 2, 60, 4294967295}, nullptr,
       "  ! vpuenc_hevc name=encoder gop-size=4294967295 bitrate=4294966   ! h265parse "},
  };
  for (const auto& [profile, config, configInterval, text] : rows) {
    EXPECT_EQ(GstVideoBackend(profile).transportEncoderChain(config, configInterval), text);
  }
}

TEST_F(Descriptions, RtspPayloader) {
  const std::tuple<Profile, Codec, unsigned int, const char*> rows[] = {
      {Profile{}, Codec::H264, 0,
       "  ! video/x-h264,stream-format=byte-stream,alignment=au   ! rtph264pay name=pay0 pt=96 "
       "mtu=0 config-interval=1 "},
      {imxProfile(), Codec::H265, 4294967295,
       "  ! video/x-h265,stream-format=byte-stream,alignment=au   ! rtph265pay name=pay0 pt=96 "
       "mtu=4294967295 config-interval=1 "},
      {Profile{}, Codec::Av1, 1400, "  ! rtpav1pay name=pay0 pt=96 mtu=1400 clock-rate=90000 "},
      {nvidiaProfile(), Codec::Mjpeg, 1400, ""},
  };
  for (const auto& [profile, codec, mtu, text] : rows) {
    EXPECT_EQ(GstVideoBackend(profile).rtspPayloaderChain(codec, mtu), text);
  }
}

TEST_F(Descriptions, HttpUpload) {
  const std::tuple<Profile, const char*, const char*> rows[] = {
      {nvidiaProfile(), "bt709",
       "! nvvideoconvert nvbuf-memory-type=0 ! "
       "video/x-raw(memory:NVMM),format=NV12,colorimetry=bt709 "},
      {with(nvidiaProfile(), "nvvidconv"), nullptr,
       "! nvvidconv nvbuf-memory-type=0 ! video/x-raw(memory:NVMM),format=NV12 "},
      {imxProfile(), "bt709",
       "! imxvideoconvert_g2d ! "
       "video/x-raw,format=NV12,interlace-mode=progressive,colorimetry=bt709 "},
      {with(imxProfile(), "identity"), "", "! video/x-raw,format=NV12,interlace-mode=progressive "},
      {Profile{}, "bt709", ""},
  };
  for (const auto& [profile, colorimetry, text] : rows) {
    EXPECT_EQ(GstVideoBackend(profile).httpUploadChain(colorimetry), text);
  }
}

TEST_F(Descriptions, HttpEncoder) {
  const std::tuple<Profile, Codec, const char*> rows[] = {
      {nvidiaProfile(), Codec::H265,
       "! nvv4l2h265enc name=encoder bitrate=4000000 insert-sps-pps=true maxperf-enable=1 "
       "iframeinterval=30 ! video/x-h265,stream-format=byte-stream ! appsink name=sink "
       "emit-signals=true sync=false"},
      {nvidiaProfile(), Codec::Av1,
       "! nvv4l2av1enc name=encoder maxperf-enable=1 bitrate=4000000 iframeinterval=30 ! av1parse "
       "! video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu ! appsink name=sink "
       "emit-signals=true sync=false"},
      {nvidiaProfile(), Codec::Mjpeg,
       "! nvjpegenc name=encoder quality=80 ! appsink name=sink emit-signals=true sync=false"},
      {imxProfile(), Codec::H264,
       "! vpuenc_h264 name=encoder ! h264parse ! "
       "video/x-h264,stream-format=byte-stream,alignment=au ! appsink name=sink emit-signals=true "
       "sync=false"},
      {imxProfile(), Codec::Mjpeg,
       "! jpegenc name=encoder quality=80 ! appsink name=sink emit-signals=true sync=false"},
  };
  for (const auto& [profile, codec, text] : rows) {
    // Only the codec and the bit rate count.
    EXPECT_EQ(GstVideoBackend(profile).httpEncoderChain({codec, 4000000, -1, 7, 1, 2}), text);
  }
}

TEST_F(Descriptions, Recorder) {
  EXPECT_EQ(
      GstVideoBackend(nvidiaProfile())
          .recorderPipeline({Codec::H264, 4294967295, -1, -2, 4294967294, 0}, 60, true, false),
      "appsrc name=mysrc is-live=true block=false format=time do-timestamp=false     ! queue "
      "max-size-buffers=1 leaky=downstream   ! nvvidconv   ! "
      "video/x-raw(memory:NVMM),format=NV12     ! nvv4l2h264enc name=enc maxperf-enable=1 "
      "output-io-mode=5        insert-sps-pps=true iframeinterval=4294967294 idrinterval=0 "
      "control-rate=-1         bitrate=4294967295 preset-level=-2     ! h264parse name=vparse "
      "config-interval=1     ! video/x-h264,alignment=au     ! queue ! sink.video appsrc "
      "name=klvsrc is-live=true block=false format=time do-timestamp=false max-buffers=8        "
      "caps=\"meta/x-klv,parsed=true\"     ! queue max-size-buffers=8 leaky=downstream ! "
      "sink.subtitle_0 splitmuxsink name=sink muxer-factory=mpegtsmux              "
      "max-size-time=60000000000");
  EXPECT_EQ(
      GstVideoBackend(imxProfile()).recorderPipeline(config(Codec::H265), 4294967295, false, true),
      "appsrc name=mysrc is-live=true block=false format=time do-timestamp=false     ! queue "
      "max-size-buffers=1 leaky=downstream   ! "
      "video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1     ! "
      "vpuenc_hevc name=enc gop-size=30 bitrate=4000     ! h265parse name=vparse "
      "config-interval=1     ! video/x-h265,alignment=au     ! queue ! sink.video appsrc "
      "name=audiosrc is-live=true block=false format=time do-timestamp=false max-buffers=64        "
      "caps=\"audio/x-opus,channel-mapping-family=(int)0,channels=(int)1,rate=(int)48000\"        "
      "! opusparse ! queue max-size-buffers=64 leaky=downstream ! sink.audio_0 splitmuxsink "
      "name=sink muxer-factory=mpegtsmux              max-size-time=4294967295000000000");
}

// Which builder gives a text for which codec.
TEST_F(Descriptions, Guards) {
  Profile notH264 = nvidiaProfile();
  notH264.hasH264 = false;
  const std::tuple<Profile, const char*, const char*, const char*> rows[] = {
      {nvidiaProfile(), "h264 h265 av1 ", "h264 h265 av1 mjpeg ", "h264 h265 "},
      {imxProfile(), "h264 h265 ", "h264 h265 mjpeg ", "h264 h265 "},
      {notH264, "h265 av1 ", "h265 av1 mjpeg ", "h265 "},
      {Profile{}, "", "", ""},
  };
  for (const auto& [profile, forTransport, forHttp, forRecorder] : rows) {
    const GstVideoBackend backend(profile);
    std::string transport;
    std::string http;
    std::string recorder;
    for (int value = -1; value <= 5; ++value) {
      const auto codec = static_cast<Codec>(value);
      const std::string name = std::string(GstVideoBackend::codecName(codec)) + " ";
      transport += backend.transportEncoderChain(config(codec), "1").empty() ? "" : name;
      http += backend.httpEncoderChain(config(codec)).empty() ? "" : name;
      recorder += backend.recorderPipeline(config(codec), 60, true, true).empty() ? "" : name;
    }
    EXPECT_EQ(transport, forTransport);
    EXPECT_EQ(http, forHttp);
    EXPECT_EQ(recorder, forRecorder);
  }
}

}  // namespace
