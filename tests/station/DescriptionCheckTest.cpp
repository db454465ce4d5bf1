#include "doctor/DescriptionCheck.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Against GStreamer's own elements: the piece at fault, and a part of what is said of it.
TEST(DescriptionCheck, NamesThePieceAtFault) {
  struct Case {
    const char* description;
    const char* piece;
    const char* message;
  };
  for (const Case& c :
       {Case{"fakesrc ! nosuchelement ! fakesink", "nosuchelement", "there is no element"},
        Case{"fakesrc ! queue nosuch=1 ! fakesink", "nosuch=1", "has no property nosuch"},
        Case{"fakesrc ! queue max-size-time=soon ! fakesink", "max-size-time=soon", "not take"},
        Case{"fakesrc ! queue leaky=sideways ! fakesink", "leaky=sideways", "2 (downstream)"},
        Case{"fakesrc ! queue leaky=7 ! fakesink", "leaky=7", "2 (downstream)"},
        Case{"videotestsrc ! x264enc speed-preset=77 ! fakesink", "speed-preset=77", "takes 0"},
        Case{"videotestsrc ! jpegenc quality=101 ! fakesink", "quality=101", "not take"},
        Case{"fakesrc ! queue current-level-time=1 ! fakesink", "current-level-time=1",
             "cannot be set"},
        Case{"fakesrc ! video/x-raw(memory:NVMM),format=NV12 ! jpegenc ! fakesink",
             "video/x-raw(memory:NVMM),format=NV12", "jpegenc does not take"},
        Case{"videotestsrc ! image/jpeg ! fakesink", "image/jpeg", "videotestsrc does not give"},
        Case{"fakesrc ! video/x-raw,format=(nosuch)1 ! fakesink", "video/x-raw,format=(nosuch)1",
             "for caps"},
        Case{"fakesrc ! fakesink name=a fakesrc ! x.", "", "omitting link"}}) {
    SCOPED_TRACE(c.description);
    const auto problems = station::checkDescription(c.description);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(std::string(c.description).substr(problems[0].offset, problems[0].length), c.piece);
    EXPECT_NE(problems[0].message.find(c.message), std::string::npos) << problems[0].message;
  }
  EXPECT_TRUE(
      station::checkDescription("appsrc caps=\"meta/x-klv, parsed=true\" ! queue ! fakesink")
          .empty());
}

}  // namespace
