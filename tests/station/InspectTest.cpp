#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "Program.h"
#include "support/TempFolder.h"

namespace {

using nlohmann::json;

TEST(Inspect, TellsWhatTheBoardOffers) {
  const Result result = run(station({"inspect", "--json", "--board", "nvidia", "--klv"}));
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const json report = json::parse(result.out);
  EXPECT_EQ(report["profile"], "nvidia-nvmm");
  EXPECT_EQ(report["codecs"],
            (json{{"h264", true}, {"h265", true}, {"av1", true}, {"mjpeg", true}}));
  const std::string recorder = report["descriptions"]["recorderPipeline"];
  EXPECT_NE(recorder.find("nvv4l2h264enc name=enc"), std::string::npos);
  EXPECT_NE(recorder.find("klvsrc"), std::string::npos);
  EXPECT_EQ(report["descriptions"].size(), 6U);
  EXPECT_NE(report["descriptions"]["rtspPayloaderChain"].get<std::string>().find("mtu=1400"),
            std::string::npos);
}

TEST(Inspect, NamesWhatIsMissing) {
  const Result result = run(station({"inspect", "--json"}));
  EXPECT_EQ(result.exitCode, 3);
  const json report = json::parse(result.out);
  EXPECT_EQ(report["available"], false);
  EXPECT_TRUE(report["descriptions"]["recorderPipeline"].is_null());
  std::map<std::string, bool> present;
  for (const json& element : report["elements"]) {
    present[element["name"]] = element["present"];
  }
  EXPECT_FALSE(present.at("nvvidconv"));
  EXPECT_FALSE(present.at("vpuenc_h264"));
  EXPECT_TRUE(present.at("h264parse"));
}

TEST(Inspect, DrawsTheRecorder) {
  const TempFolder folder;
  const std::string file = folder / "recorder.svg";
  const Result result = run(station({"inspect", "--board", "imx", "--graph", file}));
  ASSERT_EQ(result.exitCode, 0) << result.err;
  std::ifstream stream(file);
  const std::string svg{std::istreambuf_iterator<char>(stream), {}};
  for (const char* text : {"<svg", "mysrc", "vpuenc_h264", "vparse", "sink", "</svg>"}) {
    EXPECT_NE(svg.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(run(station({"inspect", "--board", "imx", "--graph", "/nowhere/a.svg"})).exitCode, 6);
}

}  // namespace
