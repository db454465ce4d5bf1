#include "metadata/GpsdClient.h"

#include <cmath>
#include <cstdint>

#include <gps.h>

#include "base/Callback.h"
#include "base/StationError.h"
#include "metadata/Geometry.h"

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

constexpr int kGpsdWaitUs = 200000;
constexpr std::chrono::seconds kRetryInterval{1};

// A value that gpsd does not know is not a number.
void set(Telemetry::Sample& sample, const std::string& key, double value) {
  if (std::isfinite(value)) {
    sample[key] = Telemetry::Value(value);
  }
}

// What is new. libgps keeps the last fix when it reads other messages.
Telemetry::Sample sampleOf(const gps_data_t& data) {
  Telemetry::Sample sample;
  const gps_fix_t& fix = data.fix;
  const int mode = (data.set & MODE_SET) != 0 ? fix.mode : MODE_NOT_SEEN;
  if (mode >= MODE_2D && std::isfinite(fix.latitude) && std::isfinite(fix.longitude)) {
    set(sample, Keys::kSensorLatDeg, fix.latitude);
    set(sample, Keys::kSensorLonDeg, fix.longitude);
    set(sample, Keys::kVelocityNorthMps, fix.speed * std::cos(fix.track * kRadians));
    set(sample, Keys::kVelocityEastMps, fix.speed * std::sin(fix.track * kRadians));
  }
  if (mode >= MODE_3D) {
    set(sample, Keys::kSensorAltM, fix.altMSL);
    set(sample, Keys::kVelocityDownMps, -fix.climb);
  }
  if ((data.set & SATELLITE_SET) != 0) {
    sample[Keys::kNavSatCount] = Telemetry::Value(std::int64_t{data.satellites_visible});
  }
  if ((data.set & ATTITUDE_SET) != 0) {
    set(sample, Keys::kYawDeg, data.attitude.heading);
    set(sample, Keys::kPitchDeg, data.attitude.pitch);
    set(sample, Keys::kRollDeg, data.attitude.roll);
  }
  return sample;
}

std::optional<Telemetry::Time> timeOf(const gps_data_t& data) {
  if ((data.set & TIME_SET) == 0) {
    return std::nullopt;
  }
  return Telemetry::Time(std::chrono::seconds(data.fix.time.tv_sec) +
                         std::chrono::nanoseconds(data.fix.time.tv_nsec));
}

}  // namespace

void GpsdClient::Close::operator()(gps_data_t* data) const {
  gps_stream(data, WATCH_DISABLE, nullptr);
  gps_close(data);
  delete data;
}

GpsdClient::GpsdClient(const std::string& place, std::chrono::nanoseconds timeout)
    : LiveTelemetry(timeout),
      host_(place.substr(0, place.find(':'))),
      port_(place.find(':') == std::string::npos ? DEFAULT_GPSD_PORT
                                                 : place.substr(place.find(':') + 1)) {
  connect();
  if (connection_ == nullptr) {
    throw StationError(ExitCode::Source, "no gpsd at " + host_ + ", port " + port_);
  }
  thread_ = std::thread([this] { callGuarded([this] { run(); }); });
}

GpsdClient::~GpsdClient() {
  stopping_ = true;
  thread_.join();
}

void GpsdClient::connect() {
  auto data = std::make_unique<gps_data_t>();
  if (gps_open(host_.c_str(), port_.c_str(), data.get()) == 0) {
    connection_.reset(data.release());
    gps_stream(connection_.get(), WATCH_ENABLE | WATCH_JSON, nullptr);
  }
}

void GpsdClient::run() {
  auto retry = std::chrono::steady_clock::now();
  while (!stopping_) {
    if (connection_ != nullptr) {
      read();
      retry = std::chrono::steady_clock::now() + kRetryInterval;
    } else if (std::chrono::steady_clock::now() >= retry) {
      connect();
      retry = std::chrono::steady_clock::now() + kRetryInterval;
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(kGpsdWaitUs));
    }
  }
}

void GpsdClient::read() {
  gps_data_t& data = *connection_;
  if (!gps_waiting(&data, kGpsdWaitUs)) {
    return;
  }
  data.set = 0;
  if (gps_read(&data, nullptr, 0) < 0) {
    connection_.reset();
  } else if ((data.set & (MODE_SET | SATELLITE_SET | ATTITUDE_SET)) != 0) {
    add(timeOf(data), sampleOf(data));
  }
}

}  // namespace station
