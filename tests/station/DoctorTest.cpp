#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

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

// Programs read the report: an object at one place has the same keys in all of them.
void expectKeysAsBefore(const json& value, const std::string& place) {
  static std::map<std::string, std::set<std::string>> known;
  std::set<std::string> keys;
  if (!value.is_structured()) {
    return;
  }
  for (const auto& [key, part] : value.items()) {
    expectKeysAsBefore(part, place + (value.is_array() ? "[]" : "." + key));
    keys.insert(key);
  }
  if (value.is_object()) {
    EXPECT_EQ(known.emplace(place, keys).first->second, keys) << place;
  }
}

json doctorJson(const std::string& faults, std::vector<std::string> arguments, int exitCode) {
  arguments.emplace_back("--json");
  const Result result = doctor(faults, arguments);
  EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
  json report = json::parse(result.out, nullptr, false);
  EXPECT_EQ(report["exitCode"], exitCode);
  EXPECT_EQ(report["usable"], exitCode == 0);
  expectKeysAsBefore(report, "");
  return report;
}

TEST(Doctor, FindsTheSimulatedBoardsUsable) {
  for (const std::string board : {"nvidia", "imx"}) {
    const json report = doctorJson("", {"--board", board, "--timeout", "120"}, 0);
    EXPECT_TRUE(report["next"].empty()) << board << report["next"];
    EXPECT_EQ(report["frames"]["sent"], 30);
    EXPECT_EQ(report["frames"]["encoded"], 30);
    EXPECT_TRUE(report["frames"]["zeroCopy"]);
    EXPECT_TRUE(report["board"]["release"].is_string());
    for (const char* codec : {"h264", "h265", "mjpeg", "av1"}) {
      const bool offered = codec != std::string("av1") || board == "nvidia";
      EXPECT_EQ(report["codecs"][codec]["works"], offered) << report["codecs"][codec];
    }
  }
}

// Each known fault of boards has a cause and a remedy in the report.
TEST(Doctor, KnowsTheTrapsOfBoards) {
  struct Row {
    const char* faults;
    const char* elements;
    int exitCode;
    const char* problem;  // of H.264; null: none
    const char* next;
  };
  constexpr const char* kPair = "nvvidconv,nvv4l2h264enc";
  const Row rows[] = {
      {"nvv4l2h264enc=no-open", kPair, 4, "Cannot open the device of the encoder", "See dmesg"},
      {"nvv4l2h264enc=crash-open", kPair, 4, "crashed: Segmentation fault", "See dmesg"},
      {"nvv4l2h264enc=no-node", kPair, 4, "Cannot identify", "/dev/v4l2-nvenc is missing"},
      {"nvv4l2h264enc=null-node", kPair, 4, "isn't a v4l2 driver", "has the numbers of /dev/null"},
      {"nvv4l2h264enc=no-v4l2", kPair, 4, "isn't a v4l2 driver", "the libv4l2 that was loaded"},
      {"nvv4l2h264enc=black", kPair, 4, "record: the pictures come back black",
       "(h264 record, h264 rtsp, h264 http): the fault is in nvvidconv or nvv4l2h264enc;"},
      {"nvvideoconvert=green", "nvvidconv,nvvideoconvert,nvv4l2h264enc", 4,
       "http: the pictures come back green", "the fault is in nvvideoconvert;"},
      {"imxvideoconvert_g2d=black", "imxvideoconvert_g2d,vpuenc_h264", 4,
       "http: the pictures come back black", "the fault is in imxvideoconvert_g2d;"},
      {"board=root-only,board=cma:2000", "vpuenc_h264", 0, nullptr,
       R"(MODE=\"0660\"","give the kernel more contiguous memory)"},
      {"", "v4l2h264enc,imxvpuenc_h264,omxh264enc", 3, nullptr,
       "omxh264enc is of boards with Open"},
  };
  for (const Row& row : rows) {
    const json report =
        doctorJson(row.faults, {"--board", row.elements, "--timeout", "120"}, row.exitCode);
    const std::string problems = report["codecs"]["h264"]["problems"].dump();
    EXPECT_EQ(report["frames"]["zeroCopy"].is_null(), row.exitCode == 3) << report["frames"];
    EXPECT_TRUE(row.problem == nullptr ? problems == "[]"
                                       : problems.find(row.problem) != std::string::npos)
        << row.faults << problems;
    EXPECT_NE(report["next"].dump().find(row.next), std::string::npos) << report["next"];
  }
  const json hangs = doctorJson("nvv4l2h264enc=hang-open", {"--board", kPair, "--timeout", "3"}, 4);
  EXPECT_NE(hangs["codecs"]["h264"]["problems"].dump().find("did not open in 3 s"),
            std::string::npos);
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

TEST(Doctor, NamesTheBoardAndWhatItLacks) {
  const TempFolder folder;
  std::filesystem::create_directories(folder / "proc/device-tree");
  std::filesystem::create_directories(folder / "etc");
  std::ofstream(folder / "proc/device-tree/model") << "Board of a test" << '\0';
  std::ofstream(folder / "etc/nv_tegra_release") << "# R35 (release), REVISION: 4.1\n# more\n";
  const json nothing = doctorJson("board=files:" + folder / "", {}, 3);
  EXPECT_EQ(nothing["board"]["model"], "Board of a test");
  EXPECT_EQ(nothing["board"]["release"], "R35 (release), REVISION: 4.1");
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
