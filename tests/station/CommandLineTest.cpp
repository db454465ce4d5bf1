// Words that no command knows, and values out of range.

#include <gtest/gtest.h>

#include <tuple>

#include "Program.h"

namespace {

TEST(CommandLine, SaysWhatIsWrongAndWhatIsMeant) {
  const std::tuple<std::vector<std::string>, const char*> rows[] = {
      {{"recrod", "clip"}, "unknown command recrod, did you mean record?"},
      {{"serve", "rtps", "clip"}, "unknown command rtps, did you mean rtsp?"},
      {{"toast"}, "unknown command toast\n"},
      {{"record", "clip", "-o", "x", "--bord", "imx"}, "option --bord, did you mean --board?"},
      {{"record", "clip", "--outptu", "x"}, "option --outptu, did you mean --output?"},
      {{"inspect", "--quite-unlike"}, "unknown option --quite-unlike\n"},
      {{"grab", "clip", "more"}, "unexpected argument more\n"},
      {{"grab", "clip", ""}, "unexpected argument \n"},
      {{"inspect", "--codec", "vp9"}, "--codec: vp9 not in {h264,h265,av1,mjpeg}\n"},
      {{"serve", "rtsp", "clip", "--codec", "mjpeg"}, "mjpeg not in {h264,h265,av1}\n"},
      {{"serve", "http", "clip", "--port", "99999"}, "99999 not in range 0 to 65535\n"},
      {{"record", "clip", "-o", "x", "--seed", "-1"}, "-1 not in range 0 to 4294967295\n"},
  };
  for (const auto& [arguments, text] : rows) {
    const Result result = run(station(arguments));
    EXPECT_EQ(result.exitCode, 2) << text;
    EXPECT_EQ(result.err.rfind("media-station: ", 0), 0U) << result.err;
    EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
  }
}

TEST(CommandLine, AcceptsEveryNameOfACodec) {
  for (const char* const name : {"hevc", "H265", "h265"}) {
    const Result result = run(station({"inspect", "--board", "imx", "--codec", name}));
    EXPECT_NE(result.out.find("vpuenc_hevc name=enc "), std::string::npos) << name << result.err;
  }
}

TEST(CommandLine, TellsItsVersion) {
  const Result result = run(station({"--version"}));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "media-station " PROJECT_VERSION "\n");
}

}  // namespace
