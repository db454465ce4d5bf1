#include "doctor/DescriptionCheck.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The piece at fault in what GStreamer does not build, empty where it is not clear, and the missing
// elements.
TEST(DescriptionCheck, NamesThePieceAtFault) {
  struct Case {
    const char* description;
    const char* piece;
    std::vector<std::string> missing;
  };
  for (const Case& c :
       {Case{"fakesrc ! nosuch1 ! nosuch2 ! fakesink", "nosuch1", {"nosuch1", "nosuch2"}},
        Case{"fakesrc ! queue nosuch=1 ! fakesink", "nosuch=1", {}},
        Case{"fakesrc ! queue leaky=sideways ! fakesink", "leaky=sideways", {}},
        Case{"fakesrc ! queue nosuch=1 ! queue nosuch=1 ! fakesink", "", {}},
        Case{"fakesrc ! video/x-raw,format=(nosuch)1 ! fakesink",
             "video/x-raw,format=(nosuch)1",
             {}},
        Case{"videotestsrc ! image/jpeg ! fakesink", "", {}}}) {
    SCOPED_TRACE(c.description);
    const auto problem = station::checkDescription(c.description).problem;
    ASSERT_TRUE(problem);
    EXPECT_EQ(std::string(c.description).substr(problem->offset, problem->length), c.piece);
    EXPECT_EQ(problem->missing, c.missing);
  }
  const auto good = station::checkDescription("fakesrc ! queue ! fakesink");
  EXPECT_FALSE(good.problem);
  EXPECT_EQ(good.elements.size(), 3U);
}

}  // namespace
