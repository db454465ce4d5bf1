#include "metadata/Telemetry.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>
#include <GeographicLib/Geodesic.hpp>

#include "Metadata.h"
#include "base/Handles.h"
#include "base/StationError.h"
#include "metadata/DemoFlight.h"
#include "metadata/Geometry.h"
#include "metadata/MetadataOptions.h"
#include "metadata/TelemetryLine.h"

namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

// What is written fits together, all the way round: the line of sight meets the ground at the frame
// centre, and the picture's corners lie around it.
TEST(DemoFlight, LineOfSightMeetsTheFrameCentre) {
  station::DemoFlight flight;
  const station::MetadataSource::Time start{};
  for (int second = 0; second < 240; second += 7) {
    const auto picture = blankPicture();
    flight.annotate(*picture, start + std::chrono::seconds(second));
    const auto set = decoded(station::MisbSt0601({}).encode(*picture));
    const auto at = [&set](const std::string& name) { return set.at(name).get<double>(); };
    const station::GeoPoint sensor{at(Keys::kSensorLatDeg), at(Keys::kSensorLonDeg),
                                   at(Keys::kSensorAltM)};
    const station::Pose pose{at(Keys::kYawDeg), at(Keys::kPitchDeg), at(Keys::kRollDeg),
                             at(Keys::kPanDeg), at(Keys::kTiltDeg)};
    const auto hit = station::meetGround(sensor, pose, {}, at(Keys::kFrameCenterElevM));
    ASSERT_TRUE(hit);
    double metres = 0;
    const auto& earth = GeographicLib::Geodesic::WGS84();
    earth.Inverse(hit->latitude, hit->longitude, at(Keys::kFrameCenterLatDeg),
                  at(Keys::kFrameCenterLonDeg), metres);
    EXPECT_LT(metres, 1) << second;
    earth.Inverse(sensor.latitude, sensor.longitude, hit->latitude, hit->longitude, metres);
    EXPECT_NEAR(metres, 1500, 1) << second;
    // By Pythagoras, but for the ellipsoid's curvature.
    EXPECT_NEAR(at(Keys::kMeasuredSlantRangeM), std::hypot(1500, 800), 1) << second;
    // The diagonals of a picture cross in its centre, from wherever it is taken.
    const auto corner = [&](int number, const char* key, const std::string& centre,
                            double metresPerDegree) {
      return (at("corner_" + std::to_string(number) + key) - at(centre)) * metresPerDegree;
    };
    for (const int first : {1, 2}) {
      const double x = corner(first, "_lon_deg", Keys::kFrameCenterLonDeg, 76057);
      const double y = corner(first, "_lat_deg", Keys::kFrameCenterLatDeg, 111170);
      const double toX = corner(first + 2, "_lon_deg", Keys::kFrameCenterLonDeg, 76057);
      const double toY = corner(first + 2, "_lat_deg", Keys::kFrameCenterLatDeg, 111170);
      EXPECT_LT(std::abs(x * toY - y * toX) / std::hypot(toX - x, toY - y), 1) << second;
      EXPECT_GT(std::hypot(x, y), 100);
      EXPECT_LT(x * toX + y * toY, 0) << "on both sides";
    }
  }
}

// A camera that looks straight down from 1000 m shows as far to each side as its angle says.
TEST(Geometry, CornersAreWhereTheAnglesSay) {
  const station::GeoPoint sensor{0, 0, 1000};
  struct Row {
    station::Pose pose;
    double north, east;
  };
  const Row rows[] = {
      {{0, 0, 0, 0, -90}, 100, 200},  {{90, 0, 0, 0, -90}, -200, 100},
      {{0, -90, 0, 0, 0}, 100, 200},  {{0, 0, 0, 90, -90}, -200, 100},
      {{0, 0, 90, 90, 0}, -200, 100},  // its right wing points down, and the camera along it
  };
  for (const Row& row : rows) {
    const auto point = station::meetGround(sensor, row.pose, {0.2, -0.1}, 0);
    ASSERT_TRUE(point);
    EXPECT_NEAR(point->latitude * 110574, row.north, 0.5);
    EXPECT_NEAR(point->longitude * 111320, row.east, 0.5);
  }
  EXPECT_FALSE(station::meetGround(sensor, {0, 0, 0, 0, 1}, {}, 0));
}

// Between samples, values go the short way; without samples, they are unknown.
TEST(Telemetry, InterpolatesAndForgets) {
  station::Telemetry telemetry(std::chrono::seconds(2), 100);
  for (const char* const line :
       {R"({"time": 100, "yaw_deg": 350, "tilt_deg": -170, "sensor_alt_m": 10, "nav_sat_count": 4,
            "sensor_lat_deg": 10, "sensor_lon_deg": 179, "camera_name": "a"})",
        R"({"time": "1970-01-01T00:01:41Z", "yaw_deg": 20, "tilt_deg": 170, "sensor_alt_m": 20,
            "nav_sat_count": 8, "sensor_lat_deg": 10, "sensor_lon_deg": -179, "camera_name": null})"}) {
    const auto parsed = station::TelemetryLine::parse(line);
    telemetry.add(parsed.time.value(), parsed.sample);
  }
  const auto at = [&telemetry](int milliseconds) {
    auto picture = blankPicture();
    telemetry.writeTo(*picture, station::Telemetry::Time(std::chrono::milliseconds(milliseconds)));
    return picture;
  };
  struct Row {
    int milliseconds;
    const std::string& key;
    std::optional<double> value;
  };
  const Row rows[] = {
      {99999, Keys::kYawDeg, {}},           {100000, Keys::kYawDeg, 350},
      {100500, Keys::kYawDeg, 5},           {100250, Keys::kTiltDeg, -175},
      {100750, Keys::kTiltDeg, 175},        {100500, Keys::kSensorAltM, 15},
      {100250, Keys::kSensorLonDeg, 179.5}, {103000, Keys::kYawDeg, 20},
      {103001, Keys::kYawDeg, {}},          {103001, Keys::kSensorLatDeg, {}},
  };
  for (const Row& row : rows) {
    const auto picture = at(row.milliseconds);
    const auto* const value = picture->metadata(row.key);
    ASSERT_EQ(value != nullptr, row.value.has_value()) << row.key << row.milliseconds;
    if (row.value) {
      EXPECT_NEAR(std::get<double>(*value), *row.value, 1e-5) << row.key << row.milliseconds;
    }
  }
  EXPECT_EQ(std::get<std::int64_t>(*at(100900)->metadata(Keys::kNavSatCount)), 4);
  EXPECT_EQ(at(101000)->metadata(Keys::kCameraName), nullptr);
  // The sender's clock is set back; its lines of before do not come again.
  telemetry.add(station::Telemetry::Time(std::chrono::seconds(97)),
                {{Keys::kSensorAltM, station::Telemetry::Value(30.0)}});
  EXPECT_EQ(std::get<double>(*at(99000)->metadata(Keys::kSensorAltM)), 30);
  EXPECT_EQ(at(100000)->metadata(Keys::kSensorAltM), nullptr);
  // On the sphere: north of the parallel between two points of it.
  EXPECT_GT(std::get<double>(*at(100500)->metadata(Keys::kSensorLatDeg)), 10.0002);
}

TEST(Telemetry, RefusesLinesThatSayNothing) {
  for (const char* const line :
       {"", "[]", "{", R"({"time": "noon"})", R"({"time": 1e300})", R"({"time": -1})",
        R"({"time": "1969-12-31T23:59:59Z"})", R"({"yaw_deg": "north"})",
        R"({"nav_sat_count": 1.5})", R"({"sensor_lat_deg": 1})", R"({"laser_range_enabled": 1})"}) {
    EXPECT_THROW(station::TelemetryLine::parse(line), std::invalid_argument) << line;
  }
}

sockaddr_in onThisMachine(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

int freePort(int type) {
  sockaddr_in address = onThisMachine(0);
  socklen_t size = sizeof(address);
  const station::UniqueFd fd(socket(AF_INET, type, 0));
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

void sendTo(int port, const std::vector<std::string>& datagrams) {
  const sockaddr_in address = onThisMachine(port);
  const station::UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
  for (const std::string& datagram : datagrams) {
    sendto(fd.get(), datagram.data(), datagram.size(), 0,
           reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  }
}

constexpr std::chrono::milliseconds kInterval{50};
constexpr int kPatience = 600;  // intervals

std::unique_ptr<station::MetadataSource> openSource(const std::string& telemetry,
                                                    double timeoutSeconds = 60) {
  station::MetadataOptions options;
  options.telemetry = telemetry;
  options.timeoutSeconds = timeoutSeconds;
  for (int i = 0; i < kPatience; ++i) {
    try {
      return options.open();
    } catch (const station::StationError&) {  // gpsd is still starting
      std::this_thread::sleep_for(kInterval);
    }
  }
  return options.open();
}

// Every source reports this: 500 m above the sea, moving east at 19.4 knots.
void expectValues(station::MetadataSource& source, const std::string& telemetry,
                  const std::function<void()>& tell) {
  const auto picture = blankPicture();
  const auto number = [&picture](const std::string& key) {
    const auto* const value = picture->metadata(key);
    return value != nullptr ? std::get<double>(*value) : std::nan("");
  };
  for (int i = 0; i < kPatience && (picture->metadata(Keys::kNavSatCount) == nullptr ||
                                    std::isnan(number(Keys::kSensorAltM)));
       ++i) {
    tell();
    std::this_thread::sleep_for(kInterval);
    // The clock has been set since the camera began, by which it counts the times of its frames.
    source.annotate(*picture, std::chrono::system_clock::now() - std::chrono::hours(1));
  }
  EXPECT_NEAR(number(Keys::kSensorLatDeg), 47.5, 1e-6) << telemetry;
  EXPECT_NEAR(number(Keys::kSensorLonDeg), 8.25, 1e-6) << telemetry;
  EXPECT_NEAR(number(Keys::kSensorAltM), 500, 1e-3) << telemetry;
  EXPECT_NEAR(number(Keys::kVelocityNorthMps), 0, 1e-3) << telemetry;
  EXPECT_NEAR(number(Keys::kVelocityEastMps), 9.98, 1e-2) << telemetry;
  ASSERT_NE(picture->metadata(Keys::kNavSatCount), nullptr) << telemetry;
  EXPECT_EQ(std::get<std::int64_t>(*picture->metadata(Keys::kNavSatCount)), 2) << telemetry;
}

// Lines in pieces, several at once, and one that says nothing.
TEST(TelemetrySources, StandardInputAndUdp) {
  const std::string count = R"({"nav_sat_count": 2})";
  const std::string position =
      R"({"sensor_lat_deg": 47.5, "sensor_lon_deg": 8.25, "velocity_north_mps": 0.0})";
  const std::string rest = R"({"velocity_east_mps": 9.98, "sensor_alt_m": 500})";
  const int port = freePort(SOCK_DGRAM);
  expectValues(*openSource("udp:" + std::to_string(port)), "udp", [&] {
    sendTo(port, {count, "nothing", position + "\n" + rest});
  });
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const station::UniqueFd readEnd(ends[0]);
  const station::UniqueFd writeEnd(ends[1]);
  const station::UniqueFd input(dup(STDIN_FILENO));
  dup2(readEnd.get(), STDIN_FILENO);
  expectValues(*openSource("-"), "-", [&] {
    for (const std::string& piece :
         {count.substr(0, 9), count.substr(9) + "\nnothing\n" + position, "\n" + rest + "\n"}) {
      EXPECT_EQ(write(writeEnd.get(), piece.data(), piece.size()),
                static_cast<ssize_t>(piece.size()));
    }
  });
  dup2(input.get(), STDIN_FILENO);
}

void endProcess(GSubprocess* process) {
  g_subprocess_force_exit(process);
  g_subprocess_wait(process, nullptr, nullptr);
  g_object_unref(process);
}

// The daemon itself, which reads a receiver's sentences (NMEA 0183).
TEST(TelemetrySources, Gpsd) {
  const int device = freePort(SOCK_DGRAM);
  const std::string port = std::to_string(freePort(SOCK_STREAM));
  const std::string input = "udp://127.0.0.1:" + std::to_string(device);
  const std::unique_ptr<GSubprocess, decltype(&endProcess)> gpsd(
      g_subprocess_new(G_SUBPROCESS_FLAGS_STDERR_SILENCE, nullptr, "/usr/sbin/gpsd", "-N", "-n",
                       "-S", port.c_str(), input.c_str(), nullptr),
      endProcess);
  if (gpsd == nullptr) {
    GTEST_SKIP() << "no gpsd: it is not asked";
  }
  const std::string place = ",4730.0000,N,00815.0000,E,";
  const std::string satellites = "GPGSV,1,1,02,01,40,083,46,02,17,308,41";
  const auto tell = [device](std::vector<std::string> sentences) {
    for (std::string& sentence : sentences) {
      unsigned int sum = 0;
      for (const char letter : sentence) {
        sum ^= static_cast<unsigned char>(letter);
      }
      g_autofree gchar* end = g_strdup_printf("*%02X\r\n", sum);
      sentence = "$" + sentence + end;
    }
    sendTo(device, sentences);
  };
  const auto source = openSource("gpsd:127.0.0.1:" + port, 2);
  expectValues(*source, "gpsd", [&] {
    g_autoptr(GDateTime) now = g_date_time_new_now_utc();
    g_autofree gchar* time = g_date_time_format(now, "%H%M%S.00");
    g_autofree gchar* date = g_date_time_format(now, "%d%m%y");
    tell({std::string("GPRMC,") + time + ",A" + place + "019.4,090.0," + date + ",,,A",
          std::string("GPGGA,") + time + place + "1,08,0.9,500.0,M,47.0,M,,", satellites});
  });
  // Without a new fix, the position becomes unknown, and the satellites do not.
  auto picture = blankPicture();
  for (int i = 0; i < kPatience && (picture->metadata(Keys::kNavSatCount) == nullptr ||
                                    picture->metadata(Keys::kSensorLatDeg) != nullptr);
       ++i) {
    tell({satellites});
    std::this_thread::sleep_for(kInterval);
    picture = blankPicture();
    source->annotate(*picture, {});
  }
  EXPECT_EQ(picture->metadata(Keys::kSensorLatDeg), nullptr);
  EXPECT_NE(picture->metadata(Keys::kNavSatCount), nullptr);
}

}  // namespace
