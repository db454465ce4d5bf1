#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "Program.h"
#include "support/TempFolder.h"

namespace {

using nlohmann::json;

// Runs doctor on a board whose elements have these faults. Looking for leaks would take it, and
// each of the many programs that it starts, three times as long.
Result doctor(const std::string& faults, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(),
                   {"env", "ASAN_OPTIONS=detect_leaks=0", "SIMULATED_BOARD_FAULTS=" + faults,
                    MEDIA_STATION, "doctor"});
  return run(arguments);
}

json doctorJson(const std::string& faults, std::vector<std::string> arguments, int exitCode) {
  arguments.emplace_back("--json");
  const Result result = doctor(faults, arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
  json report = json::parse(result.out, nullptr, false);
  EXPECT_EQ(report["exitCode"], exitCode);
  EXPECT_EQ(report["usable"], exitCode == 0);
  return report;
}

TEST(Doctor, FindsTheSimulatedBoardsUsable) {
  for (const std::string board : {"nvidia", "imx"}) {
    const json report = doctorJson("", {"--board", board, "--timeout", "120"}, 0);
    EXPECT_TRUE(report["next"].empty()) << board << report["next"];
    for (const char* codec : {"h264", "h265", "mjpeg", "av1"}) {
      const bool offered = codec != std::string("av1") || board == "nvidia";
      EXPECT_EQ(report["codecs"][codec]["works"], offered) << report["codecs"][codec];
    }
  }
}

// One broken encoder: what is said of it, and whether other codecs keep the board usable.
TEST(Doctor, SeesHowAnEncoderFailsToOpen) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"no-open", "120", "Cannot open the device of the encoder"},
      {"hang-open", "3", "did not open in 3 s"},
      {"crash-open", "120", "crashed: Segmentation fault"},
  };
  for (const auto& [fault, limit, error] : rows) {
    const json report = doctorJson(std::string("nvv4l2h264enc=") + fault,
                                   {"--board", "nvvidconv,nvv4l2h264enc", "--timeout", limit}, 4);
    const json& codec = report["codecs"]["h264"];
    EXPECT_FALSE(codec["works"]);
    EXPECT_TRUE(codec["supported"]);
    EXPECT_NE(codec["problems"].dump().find(error), std::string::npos) << codec["problems"];
    EXPECT_NE(report["next"].dump().find("nvv4l2h264enc"), std::string::npos) << report["next"];
  }
}

TEST(Doctor, TheCodecThatIsAskedForDecides) {
  for (const auto& [codec, exitCode] : {std::pair{"h264", 4}, std::pair{"h265", 0}}) {
    doctorJson(
        "nvv4l2h264enc=no-open",
        {"--board", "nvvidconv,nvv4l2h264enc,nvv4l2h265enc", "--timeout", "120", "--codec", codec},
        exitCode);
  }
  EXPECT_EQ(doctor("", {"--codec", "mpeg2"}).exitCode, 2);
}

TEST(Doctor, NamesWhatAPlatformLacks) {
  const json nothing = doctorJson("", {}, 3);
  EXPECT_NE(nothing["next"].dump().find("no hardware video element"), std::string::npos);
  const json part = doctorJson("", {"--board", "nvv4l2h264enc"}, 3);
  EXPECT_NE(part["next"].dump().find("here is only nvv4l2h264enc: install"), std::string::npos)
      << part["next"];
}

TEST(Doctor, SaysWhyAPluginDoesNotLoad) {
  const TempFolder folder;
  const std::string file = folder / "libgstbroken.so";
  std::ofstream(file) << "no library";
  const Result result = run({"env", "-u", "GST_REGISTRY_UPDATE", "GST_PLUGIN_PATH=" + folder / "",
                             "GST_REGISTRY=" + folder / "registry", MEDIA_STATION, "doctor",
                             "--json", "--timeout", "120"});
  const json report = json::parse(result.out, nullptr, false);
  ASSERT_EQ(report["failedPlugins"].size(), 1U) << result.out << result.err;
  EXPECT_EQ(report["failedPlugins"][0]["file"], file);
  EXPECT_NE(report["next"][0].get<std::string>().find("file too short"), std::string::npos)
      << report["next"];
}

}  // namespace
