// Codec vocabulary, profile queries and input caps.

#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>
#include <media_backend/GstVideoBackend.h>

#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using Profile = GstVideoBackend::Profile;

TEST(CodecVocabulary, ReadsNamesInAnyCaseButWhole) {
  const std::pair<std::string, Codec> rows[] = {
      {"h264", Codec::H264},     {"H265", Codec::H265},       {"hevc", Codec::H265},
      {"HEVC", Codec::H265},     {"Av1", Codec::Av1},         {"mjpeg", Codec::Mjpeg},
      {"jpeg", Codec::Mjpeg},    {"JPG", Codec::Mjpeg},       {"", Codec::Unknown},
      {" h264", Codec::Unknown}, {"h264 ", Codec::Unknown},   {"h26", Codec::Unknown},
      {"\xc4", Codec::Unknown},  {"h264\xc4", Codec::Unknown}};
  for (const auto& [text, codec] : rows) {
    EXPECT_EQ(GstVideoBackend::codecFromString(text), codec) << "\"" << text << "\"";
  }
  EXPECT_EQ(GstVideoBackend::codecFromString(std::string("h264\0", 5)), Codec::Unknown);
}

TEST(CodecVocabulary, NamesEveryValue) {
  const std::pair<int, const char*> rows[] = {{0, "unknown"}, {1, "h264"},  {2, "h265"},
                                              {3, "av1"},     {4, "mjpeg"}, {5, "unknown"},
                                              {-1, "unknown"}};
  for (const auto& [value, name] : rows) {
    EXPECT_STREQ(GstVideoBackend::codecName(static_cast<Codec>(value)), name) << value;
  }
}

TEST(ProfileQueries, EachCodecHasItsOwnFlag) {
  bool Profile::*const flags[] = {&Profile::hasH264, &Profile::hasH265, &Profile::hasAv1,
                                  &Profile::hasJpeg};
  for (int flagged = 0; flagged <= 4; ++flagged) {  // 0: none
    Profile profile;
    if (flagged > 0) {
      profile.*flags[flagged - 1] = true;
    }
    const GstVideoBackend backend(profile);
    for (int codec = -1; codec <= 5; ++codec) {
      EXPECT_EQ(backend.supports(static_cast<Codec>(codec)), flagged > 0 && codec == flagged)
          << codec;
    }
  }
}

TEST(ProfileQueries, ABoardWithoutEncodersHasEmptyNames) {
  const GstVideoBackend none{Profile{}};
  EXPECT_EQ(none.h26xEncoder(true), GstVideoBackend{Profile{}}.h26xEncoder(true));  // outlives both
  EXPECT_STREQ(none.h26xEncoder(true), "");
}

struct CapsRow {
  int width;
  int height;
  int fps;
  bool squarePixels;
  const char* colorimetry;
  const char* fields;  // besides those that all caps have; null if there are no caps
};

const CapsRow kCapsRows[] = {
    {1280, 720, 30, false, nullptr, "width=1280,height=720,framerate=30/1,colorimetry=bt709"},
    {1280, 720, 30, true, "bt601",
     "width=1280,height=720,framerate=30/1,colorimetry=bt601,pixel-aspect-ratio=1/1"},
    {1, 1, -5, false, "", "width=1,height=1,framerate=0/1,colorimetry=bt709"},
    {0, 720, 30, false, nullptr, nullptr},
    {-1, 720, 30, false, nullptr, nullptr},
    {1280, 0, 30, false, nullptr, nullptr},
    {1280, INT32_MIN, 30, false, nullptr, nullptr},
};

TEST(InputCaps, AreWhatThePlatformTakesOrLeaveTheSourceAlone) {
  const std::pair<Profile, std::string> platforms[] = {
      {nvidiaProfile(), "video/x-raw(memory:NVMM)"},
      {imxProfile(), "video/x-raw"},
      {Profile{}, ""}};
  for (const auto& [profile, mediaType] : platforms) {
    const GstVideoBackend backend(profile);
    for (const CapsRow& row : kCapsRows) {
      const bool possible = !mediaType.empty() && row.fields != nullptr;
      const std::string text =
          possible ? mediaType + ",format=NV12,interlace-mode=progressive," + row.fields
                   : "audio/x";
      SCOPED_TRACE(text);
      g_autoptr(GstCaps) expected = gst_caps_from_string(text.c_str());
      g_autoptr(GstCaps) made =
          backend.makeInputCaps(row.width, row.height, row.fps, row.squarePixels, row.colorimetry);
      ASSERT_EQ(made != nullptr, possible);
      EXPECT_TRUE(!possible || gst_caps_is_strictly_equal(made, expected));

      g_autoptr(GstElement) source = gst_element_factory_make("appsrc", nullptr);
      gst_object_ref_sink(source);
      g_object_set(source, "caps", possible ? nullptr : expected, nullptr);
      EXPECT_EQ(backend.setInputCaps(GST_APP_SRC(source), row.width, row.height, row.fps,
                                     row.squarePixels, row.colorimetry),
                possible);
      g_autoptr(GstCaps) set = gst_app_src_get_caps(GST_APP_SRC(source));
      EXPECT_TRUE(set != nullptr && gst_caps_is_strictly_equal(set, expected));
    }
    EXPECT_FALSE(backend.setInputCaps(nullptr, 1280, 720, 30, true, nullptr));
  }
}

}  // namespace
