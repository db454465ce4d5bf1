// Codec vocabulary, profile queries and input caps.

#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>
#include <media_backend/GstVideoBackend.h>

#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using Platform = GstVideoBackend::Platform;
using Profile = GstVideoBackend::Profile;

TEST(CodecVocabulary, ReadsNamesInAnyCaseButWhole) {
  const struct {
    std::string text;
    Codec codec;
  } rows[] = {
      {"h264", Codec::H264},
      {"H264", Codec::H264},
      {"h265", Codec::H265},
      {"hevc", Codec::H265},
      {"HEVC", Codec::H265},
      {"av1", Codec::Av1},
      {"Av1", Codec::Av1},
      {"mjpeg", Codec::Mjpeg},
      {"jpeg", Codec::Mjpeg},
      {"JPG", Codec::Mjpeg},
      {"", Codec::Unknown},
      {" h264", Codec::Unknown},
      {"h264 ", Codec::Unknown},
      {"h26", Codec::Unknown},
      {"h.264", Codec::Unknown},
      {"unknown", Codec::Unknown},
      {std::string("h264\0", 5), Codec::Unknown},
      {"h264\xc4", Codec::Unknown},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GstVideoBackend::codecFromString(row.text), row.codec) << "\"" << row.text << "\"";
  }
}

TEST(CodecVocabulary, NamesEveryValue) {
  const struct {
    int codec;
    const char* name;
  } rows[] = {{0, "unknown"}, {1, "h264"},    {2, "h265"},     {3, "av1"},
              {4, "mjpeg"},   {5, "unknown"}, {-1, "unknown"}, {INT32_MAX, "unknown"}};
  for (const auto& row : rows) {
    EXPECT_STREQ(GstVideoBackend::codecName(static_cast<Codec>(row.codec)), row.name) << row.codec;
  }
}

TEST(ProfileQueries, FreshProfileIsThatOfNoPlatform) {
  const GstVideoBackend backend{Profile{}};
  EXPECT_STREQ(backend.name(), "none");
  EXPECT_FALSE(backend.available());
  EXPECT_STREQ(backend.h26xEncoder(false), "");
  EXPECT_STREQ(backend.h26xEncoder(true), "");
  for (int codec = -1; codec <= 5; ++codec) {
    EXPECT_FALSE(backend.supports(static_cast<Codec>(codec))) << codec;
  }
}

TEST(ProfileQueries, EachCodecHasItsOwnFlag) {
  const struct {
    bool Profile::*flag;
    Codec codec;
  } rows[] = {{&Profile::hasH264, Codec::H264},
              {&Profile::hasH265, Codec::H265},
              {&Profile::hasAv1, Codec::Av1},
              {&Profile::hasJpeg, Codec::Mjpeg}};
  for (const auto& row : rows) {
    Profile profile;
    profile.platform = Platform::Nvidia;
    profile.*row.flag = true;
    const GstVideoBackend backend(profile);
    for (int codec = -1; codec <= 5; ++codec) {
      EXPECT_EQ(backend.supports(static_cast<Codec>(codec)), codec == static_cast<int>(row.codec))
          << codec;
    }
  }
}

TEST(ProfileQueries, NamesOfElementsAndCaps) {
  for (const Profile& profile : {nvidiaProfile(), imxProfile()}) {
    const GstVideoBackend backend(profile);
    EXPECT_STREQ(backend.name(), profile.name);
    EXPECT_TRUE(backend.available());
    EXPECT_EQ(backend.h26xEncoder(false), profile.h264Encoder);
    EXPECT_EQ(backend.h26xEncoder(true), profile.h265Encoder);
  }
  const GstVideoBackend none{Profile{}};
  EXPECT_STREQ(none.h26xParser(false), "h264parse");
  EXPECT_STREQ(none.h26xParser(true), "h265parse");
  EXPECT_STREQ(none.h26xCaps(false), "video/x-h264");
  EXPECT_STREQ(none.h26xCaps(true), "video/x-h265");
  EXPECT_STREQ(none.h26xPayloader(false), "rtph264pay");
  EXPECT_STREQ(none.h26xPayloader(true), "rtph265pay");
}

struct CapsRow {
  int width;
  int height;
  int fps;
  bool squarePixels;
  const char* colorimetry;
  const char* fields;  // behind media type and features; null if there are no caps
};

const CapsRow kCapsRows[] = {
    {1280, 720, 30, false, nullptr,
     ", format=(string)NV12, width=(int)1280, height=(int)720, framerate=(fraction)30/1, "
     "interlace-mode=(string)progressive, colorimetry=(string)bt709"},
    {1280, 720, 30, true, "bt601",
     ", format=(string)NV12, width=(int)1280, height=(int)720, framerate=(fraction)30/1, "
     "interlace-mode=(string)progressive, colorimetry=(string)bt601, "
     "pixel-aspect-ratio=(fraction)1/1"},
    {1, 1, 0, false, "",
     ", format=(string)NV12, width=(int)1, height=(int)1, framerate=(fraction)0/1, "
     "interlace-mode=(string)progressive, colorimetry=(string)bt709"},
    {641, 2, -5, false, "no such name",
     ", format=(string)NV12, width=(int)641, height=(int)2, framerate=(fraction)0/1, "
     "interlace-mode=(string)progressive, colorimetry=(string)\"no\\ such\\ name\""},
    {0, 720, 30, false, nullptr, nullptr},
    {-1, 720, 30, false, nullptr, nullptr},
    {1280, 0, 30, false, nullptr, nullptr},
    {1280, INT32_MIN, 30, false, nullptr, nullptr},
};

const struct {
  Profile profile;
  const char* start;
} kCapsPlatforms[] = {{nvidiaProfile(), "video/x-raw(memory:NVMM)"}, {imxProfile(), "video/x-raw"}};

TEST(InputCaps, AreWhatThePlatformTakes) {
  for (const auto& platform : kCapsPlatforms) {
    const GstVideoBackend backend(platform.profile);
    for (const CapsRow& row : kCapsRows) {
      g_autoptr(GstCaps) caps =
          backend.makeInputCaps(row.width, row.height, row.fps, row.squarePixels, row.colorimetry);
      ASSERT_EQ(caps != nullptr, row.fields != nullptr) << row.width << "x" << row.height;
      if (caps != nullptr) {
        EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(caps), 1);
        g_autofree gchar* text = gst_caps_to_string(caps);
        EXPECT_EQ(std::string(text), std::string(platform.start) + row.fields);
      }
    }
  }
}

TEST(InputCaps, AreSetOnTheSourceOrLeaveItAlone) {
  for (const auto& platform : kCapsPlatforms) {
    const GstVideoBackend backend(platform.profile);
    for (const CapsRow& row : kCapsRows) {
      g_autoptr(GstElement) source = gst_element_factory_make("appsrc", nullptr);
      gst_object_ref_sink(source);
      g_autoptr(GstCaps) before = gst_caps_from_string("audio/x-raw");
      gst_app_src_set_caps(GST_APP_SRC(source), before);

      EXPECT_EQ(backend.setInputCaps(GST_APP_SRC(source), row.width, row.height, row.fps,
                                     row.squarePixels, row.colorimetry),
                row.fields != nullptr);
      g_autoptr(GstCaps) after = gst_app_src_get_caps(GST_APP_SRC(source));
      g_autofree gchar* text = gst_caps_to_string(after);
      EXPECT_EQ(std::string(text),
                row.fields != nullptr ? std::string(platform.start) + row.fields : "audio/x-raw");
      EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(source), 1);
    }
    EXPECT_FALSE(backend.setInputCaps(nullptr, 1280, 720, 30, true, nullptr));
  }
}

TEST(InputCaps, NeedAPlatform) {
  Profile strange = nvidiaProfile();
  strange.platform = static_cast<Platform>(3);
  for (const Profile& profile : {Profile{}, strange}) {
    const GstVideoBackend backend(profile);
    EXPECT_EQ(backend.makeInputCaps(1280, 720, 30, true, "bt709"), nullptr);
    g_autoptr(GstElement) source = gst_element_factory_make("appsrc", nullptr);
    gst_object_ref_sink(source);
    EXPECT_FALSE(backend.setInputCaps(GST_APP_SRC(source), 1280, 720, 30, true, "bt709"));
    EXPECT_EQ(gst_app_src_get_caps(GST_APP_SRC(source)), nullptr);
  }
}

}  // namespace
