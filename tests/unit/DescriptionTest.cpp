// The exact texts of the pipeline descriptions.

#include <algorithm>
#include <locale>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>
#include <media_backend/GstVideoBackend.h>

#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using EncoderConfig = GstVideoBackend::EncoderConfig;
using Platform = GstVideoBackend::Platform;
using Profile = GstVideoBackend::Profile;

// Groups digits, as a host's locale may do: descriptions have to stay plain.
class GroupDigits : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

class Descriptions : public testing::Test {
 protected:
  void SetUp() override {
    std::ostringstream text;
    text << 4000000;
    ASSERT_EQ(text.str(), "4.000.000");
  }
  ~Descriptions() override { std::locale::global(before_); }

 private:
  std::locale before_ = std::locale::global(std::locale(std::locale(), new GroupDigits));
};

EncoderConfig config(Codec codec) {
  return {codec, 4000000, 1, 1, 30, 30};
}

Profile nvidiaWithVideoconvert() {
  Profile profile = nvidiaProfile();
  profile.inputConverter = "nvvideoconvert";
  return profile;
}

Profile strangePlatform() {
  Profile profile = nvidiaProfile();
  profile.platform = static_cast<Platform>(3);
  return profile;
}

TEST_F(Descriptions, InputConversion) {
  const struct {
    Profile profile;
    const char* colorimetry;
    const char* text;
  } rows[] = {
      {nvidiaProfile(), "bt709",
       "  ! nvvidconv   ! video/x-raw(memory:NVMM),format=NV12,colorimetry=bt709 "},
      {nvidiaProfile(), nullptr, "  ! nvvidconv   ! video/x-raw(memory:NVMM),format=NV12 "},
      {nvidiaProfile(), "", "  ! nvvidconv   ! video/x-raw(memory:NVMM),format=NV12 "},
      {nvidiaProfile(), "a b!c",
       "  ! nvvidconv   ! video/x-raw(memory:NVMM),format=NV12,colorimetry=a b!c "},
      {nvidiaWithVideoconvert(), nullptr,
       "  ! nvvideoconvert   ! video/x-raw(memory:NVMM),format=NV12 "},
      {imxProfile(), "bt709",
       "  ! video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1,"
       "colorimetry=bt709 "},
      {imxProfile(), nullptr,
       "  ! video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1 "},
      {imxProfile(), "",
       "  ! video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1 "},
      {Profile{}, nullptr, ""},
      {Profile{}, "bt709", ""},
      {strangePlatform(), "bt709", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GstVideoBackend(row.profile).inputConversionChain(row.colorimetry), row.text);
  }
}

TEST_F(Descriptions, TransportEncoder) {
  const struct {
    Profile profile;
    EncoderConfig config;
    const char* configInterval;
    const char* text;
  } rows[] = {
      {nvidiaProfile(), config(Codec::H264), "-1",
       "  ! nvv4l2h264enc name=encoder maxperf-enable=1            iframeinterval=30 "
       "idrinterval=30 control-rate=1            bitrate=4000000            preset-level=1   ! "
       "h264parse config-interval=-1 "},
      {nvidiaProfile(), config(Codec::H265), nullptr,
       "  ! nvv4l2h265enc name=encoder maxperf-enable=1            iframeinterval=30 "
       "idrinterval=30 control-rate=1            bitrate=4000000            preset-level=1   ! "
       "h265parse "},
      {nvidiaProfile(),
       {Codec::H265, 999, -1, -2147483647 - 1, 4294967295, 60},
       "",
       "  ! nvv4l2h265enc name=encoder maxperf-enable=1            iframeinterval=4294967295 "
       "idrinterval=60 control-rate=-1            bitrate=999            "
       "preset-level=-2147483648   ! h265parse "},
      {nvidiaProfile(), config(Codec::Av1), "-1",
       "  ! nvv4l2av1enc name=encoder maxperf-enable=1            iframeinterval=30 "
       "idrinterval=30 control-rate=1            bitrate=4000000            preset-level=1   ! "
       "av1parse name=parser   ! video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu "},
      {imxProfile(), config(Codec::H264), "-1",
       "  ! vpuenc_h264 name=encoder gop-size=30 bitrate=4000   ! h264parse config-interval=-1 "},
      {imxProfile(),
       {Codec::H264, 2500500, 0, 2, 60, 120},
       nullptr,
       "  ! vpuenc_h264 name=encoder gop-size=120 bitrate=2500   ! h264parse "},
      {imxProfile(),
       {Codec::H265, 999, 0, 2, 60, 0},
       "1",
       "  ! vpuenc_hevc name=encoder gop-size=0 bitrate=0   ! h265parse config-interval=1 "},
      {imxProfile(),
       {Codec::H265, 4294967295, 0, 2, 60, 4294967295},
       nullptr,
       "  ! vpuenc_hevc name=encoder gop-size=4294967295 bitrate=4294967   ! h265parse "},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GstVideoBackend(row.profile).transportEncoderChain(row.config, row.configInterval),
              row.text);
  }
}

TEST_F(Descriptions, RecorderWithBothTracks) {
  EXPECT_EQ(
      GstVideoBackend(nvidiaProfile()).recorderPipeline(config(Codec::H264), 60, true, true),
      "appsrc name=mysrc is-live=true block=false format=time do-timestamp=false     ! queue "
      "max-size-buffers=1 leaky=downstream   ! nvvidconv   ! "
      "video/x-raw(memory:NVMM),format=NV12     ! nvv4l2h264enc name=enc maxperf-enable=1 "
      "output-io-mode=5        insert-sps-pps=true iframeinterval=30 idrinterval=30 "
      "control-rate=1         bitrate=4000000 preset-level=1     ! h264parse name=vparse "
      "config-interval=1     ! video/x-h264,alignment=au     ! queue ! sink.video appsrc "
      "name=klvsrc is-live=true block=false format=time do-timestamp=false max-buffers=8        "
      "caps=\"meta/x-klv,parsed=true\"     ! queue max-size-buffers=8 leaky=downstream ! "
      "sink.subtitle_0 appsrc name=audiosrc is-live=true block=false format=time "
      "do-timestamp=false max-buffers=64        "
      "caps=\"audio/x-opus,channel-mapping-family=(int)0,channels=(int)1,rate=(int)48000\"        "
      "! opusparse ! queue max-size-buffers=64 leaky=downstream ! sink.audio_0 splitmuxsink "
      "name=sink muxer-factory=mpegtsmux              max-size-time=60000000000");
}

TEST_F(Descriptions, RecorderWithVideoOnly) {
  EXPECT_EQ(
      GstVideoBackend(imxProfile()).recorderPipeline(config(Codec::H265), 300, false, false),
      "appsrc name=mysrc is-live=true block=false format=time do-timestamp=false     ! queue "
      "max-size-buffers=1 leaky=downstream   ! "
      "video/x-raw,format=NV12,interlace-mode=progressive,pixel-aspect-ratio=1/1     ! "
      "vpuenc_hevc name=enc gop-size=30 bitrate=4000     ! h265parse name=vparse "
      "config-interval=1     ! video/x-h265,alignment=au     ! queue ! sink.video splitmuxsink "
      "name=sink muxer-factory=mpegtsmux              max-size-time=300000000000");
}

// What follows the video branch, and the numbers at their limits.
TEST_F(Descriptions, RecorderPieces) {
  const char* const kKlv = "! sink.video appsrc name=klvsrc ";
  const char* const kAudio = "! sink.video appsrc name=audiosrc ";
  const char* const kKlvThenMuxer = " ! sink.subtitle_0 splitmuxsink name=sink ";
  const char* const kAudioThenMuxer = " ! sink.audio_0 splitmuxsink name=sink ";
  const struct {
    Profile profile;
    EncoderConfig config;
    unsigned int seconds;
    bool klv;
    bool audio;
    std::vector<const char*> with;
    std::vector<const char*> without;
    const char* end;
  } rows[] = {
      {nvidiaProfile(),
       config(Codec::H264),
       4294967295,
       true,
       false,
       {kKlv, kKlvThenMuxer},
       {"audio", ",colorimetry="},
       " max-size-time=4294967295000000000"},
      {nvidiaWithVideoconvert(),
       {Codec::H265, 4294967295, -1, -2, 4294967295, 0},
       0,
       false,
       true,
       {kAudio, kAudioThenMuxer, "  ! nvvideoconvert   ! ", " ! nvv4l2h265enc name=enc ",
        "iframeinterval=4294967295 idrinterval=0 control-rate=-1 ",
        "bitrate=4294967295 preset-level=-2 "},
       {"klv", "subtitle"},
       " max-size-time=0"},
      {imxProfile(),
       {Codec::H264, 999, 7, 8, 9, 120},
       1,
       false,
       false,
       {" ! vpuenc_h264 name=enc gop-size=120 bitrate=0     ! h264parse name=vparse "},
       {"control-rate", "preset-level", "iframeinterval", "identity"},
       " max-size-time=1000000000"},
  };
  for (const auto& row : rows) {
    const std::string text =
        GstVideoBackend(row.profile).recorderPipeline(row.config, row.seconds, row.klv, row.audio);
    SCOPED_TRACE(text);
    for (const char* piece : row.with) {
      EXPECT_NE(text.find(piece), std::string::npos) << piece;
    }
    for (const char* piece : row.without) {
      EXPECT_EQ(text.find(piece), std::string::npos) << piece;
    }
    const std::string end = row.end;
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
  }
}

// Which builder gives a text for which codec.
TEST_F(Descriptions, Guards) {
  Profile notH264 = nvidiaProfile();
  notH264.hasH264 = false;
  Profile notH265 = imxProfile();
  notH265.hasH265 = false;
  const struct {
    Profile profile;
    std::vector<Codec> transport;
    std::vector<Codec> recorder;
  } rows[] = {
      {nvidiaProfile(), {Codec::H264, Codec::H265, Codec::Av1}, {Codec::H264, Codec::H265}},
      {imxProfile(), {Codec::H264, Codec::H265}, {Codec::H264, Codec::H265}},
      {notH264, {Codec::H265, Codec::Av1}, {Codec::H265}},
      {notH265, {Codec::H264}, {Codec::H264}},
      {Profile{}, {}, {}},
  };
  for (const auto& row : rows) {
    const GstVideoBackend backend(row.profile);
    for (int value = -1; value <= 5; ++value) {
      const auto codec = static_cast<Codec>(value);
      const auto listed = [codec](const std::vector<Codec>& codecs) {
        return std::find(codecs.begin(), codecs.end(), codec) != codecs.end();
      };
      EXPECT_EQ(!backend.transportEncoderChain(config(codec), "1").empty(), listed(row.transport))
          << backend.name() << " " << value;
      EXPECT_EQ(!backend.recorderPipeline(config(codec), 60, true, true).empty(),
                listed(row.recorder))
          << backend.name() << " " << value;
    }
  }
}

}  // namespace
