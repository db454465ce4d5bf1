// Metadata on its way from telemetry through recordings to the command "klv" and to GStreamer.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Program.h"
#include "Timestamps.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

namespace {

using nlohmann::json;

constexpr int kFrames = 25;

struct Item {
  const char* name;
  double low, high;
  double resolution;  // of the standard's item
};

const Item kItems[] = {
    {"yaw_deg", 0, 359.99, 0.0055},
    {"pitch_deg", -90, 90, 0.00061},
    {"roll_deg", -90, 90, 0.0016},
    {"sensor_lat_deg", -90, 90, 4.2e-8},
    {"sensor_lon_deg", -180, 180, 8.4e-8},
    {"sensor_alt_m", -900, 19000, 0.31},
    {"hfov_deg", 0, 180, 0.0028},
    {"vfov_deg", 0, 180, 0.0028},
    {"pan_deg", 0, 359.99, 8.4e-8},
    {"tilt_deg", -180, 180, 8.4e-8},
    {"measured_slant_range_m", 0, 5e6, 0.0012},
    {"frame_center_lat_deg", -90, 90, 4.2e-8},
    {"frame_center_lon_deg", -180, 180, 8.4e-8},
    {"frame_center_elev_m", -900, 19000, 0.31},
    {"target_lrf_lat_deg", -90, 90, 4.2e-8},
    {"target_lrf_lon_deg", -180, 180, 8.4e-8},
    {"target_lrf_elev_m", -900, 19000, 0.31},
    {"velocity_north_mps", -327, 327, 0.01},
    {"velocity_east_mps", -327, 327, 0.01},
    {"velocity_down_mps", -180, 180, 0.0055},
    {"azimuth_rate_dps", -1000, 1000, 0.00025},
    {"elevation_rate_dps", -1000, 1000, 0.00025},
    {"roll_rate_dps", -1000, 1000, 0.00025},
};

// A line for each frame, at its time; every third is silent about one item.
std::vector<json> randomTelemetry() {
  std::mt19937 random(25);
  std::vector<json> lines;
  for (int i = 0; i < kFrames; ++i) {
    json line = {{"time", 1000 + i * 0.04},
                 {"laser_range_enabled", i % 2 == 0},
                 {"nav_sat_count", i},
                 {"camera_name", "camera " + std::to_string(i)}};
    for (const Item& item : kItems) {
      line[item.name] = std::uniform_real_distribution<double>(item.low, item.high)(random);
    }
    if (i % 3 == 0) {
      line["hfov_deg"] = nullptr;
    }
    lines.push_back(line);
  }
  return lines;
}

std::vector<json> jsonLines(const std::string& text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(json::parse(line));
  }
  return lines;
}

// What the set says beside the telemetry.
bool isDerived(const std::string& name) {
  const char* const kNames[] = {"utc_timestamp_us", "version", "image_coordinate_system",
                                "image_source_sensor", "target_width_m"};
  return std::count(std::begin(kNames), std::end(kNames), name) > 0 ||
         name.rfind("corner_", 0) == 0;
}

class Klv : public testing::Test {
 protected:
  Klv() { makeClip(clip_, "320x180", 25, kFrames); }

  Result record(const std::vector<std::string>& options) const {
    return run(station({"record", clip_, "-o", folder_ / "out", "--width", "320", "--height", "180",
                        "--board", "nvidia", "--no-loop", "--klv"},
                       options));
  }
  std::string file() const { return std::filesystem::directory_iterator(folder_ / "out")->path(); }

  TempFolder folder_;
  const std::string clip_ = folder_ / "clip.mkv";
};

// Every value of every frame within its item's resolution, and the time of the frame in its video.
TEST_F(Klv, WhatWentInComesOut) {
  const std::vector<json> sent = randomTelemetry();
  {
    std::ofstream lines(folder_ / "telemetry.jsonl");
    for (const json& line : sent) {
      lines << line << '\n';
    }
  }
  const Result recorded = record({"--telemetry", folder_ / "telemetry.jsonl"});
  ASSERT_TRUE(hasRecorded(recorded)) << recorded.err;
  const Result result = run(station({"klv", file()}));
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const std::vector<json> received = jsonLines(result.out);
  ASSERT_EQ(received.size(), sent.size());
  std::vector<std::int64_t> times;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    times.push_back(received[i].at("utc_timestamp_us").get<std::int64_t>());
    EXPECT_EQ(times.back() - times.front(), static_cast<std::int64_t>(i) * 40000);
    for (const Item& item : kItems) {
      if (sent[i].at(item.name).is_null()) {
        EXPECT_FALSE(received[i].contains(item.name)) << i;
        continue;
      }
      EXPECT_NEAR(received[i].at(item.name).get<double>(), sent[i].at(item.name).get<double>(),
                  item.resolution)
          << item.name << i;
    }
    for (const auto& [name, value] : received[i].items()) {
      EXPECT_TRUE(sent[i].contains(name) || isDerived(name)) << "invented: " << name << value;
    }
    EXPECT_EQ(received[i].at("laser_range_enabled"), sent[i].at("laser_range_enabled"));
    EXPECT_EQ(received[i].at("nav_sat_count"), sent[i].at("nav_sat_count"));
    EXPECT_EQ(received[i].at("image_source_sensor"), sent[i].at("camera_name"));
  }
  // A slow encoder drops frames, never their metadata.
  std::vector<std::int64_t> inVideo =
      timestampsIn("filesrc location=" + file() + " ! tsdemux", kFrames);
  EXPECT_FALSE(inVideo.empty());
  std::sort(inVideo.begin(), inVideo.end());
  EXPECT_TRUE(std::includes(times.begin(), times.end(), inVideo.begin(), inVideo.end()));
  if (recorded.exitCode == 0) {
    EXPECT_EQ(inVideo, times);
  }
}

TEST_F(Klv, RefusesWhatItCannotUse) {
  std::ofstream(folder_ / "bad.jsonl") << "{\"time\": 1}\n{\"yaw_deg\": 1}\n";
  struct Row {
    std::vector<std::string> options;
    int exitCode;
    const char* message;
  };
  const Row rows[] = {
      {{"--telemetry", folder_ / "none"}, 5, "cannot read telemetry"},
      {{"--telemetry", folder_ / "bad.jsonl"}, 5, "bad.jsonl, line 2: no time"},
      {{"--telemetry", "gpsd:127.0.0.1:1"}, 5, "no gpsd at 127.0.0.1:1"},
      {{"--telemetry", "udp:here"}, 2, "udp:PORT"},
      {{"--security", "secret"}, 2, "unclassified:CHE:CHE"},
      {{"--mission", std::string(128, 'm')}, 2, "longer than 127 bytes"},
  };
  for (const Row& row : rows) {
    const Result result = record(row.options);
    EXPECT_EQ(result.exitCode, row.exitCode) << row.message;
    EXPECT_NE(result.err.find(row.message), std::string::npos) << result.err;
  }
  const Result none = run(station({"klv", clip_}));
  EXPECT_EQ(none.exitCode, 5) << none.err;
}

}  // namespace
