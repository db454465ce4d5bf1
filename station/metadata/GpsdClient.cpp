#include "metadata/GpsdClient.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include <gps.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include "base/Callback.h"
#include "base/StationError.h"
#include "metadata/Geometry.h"

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

constexpr std::string_view kWatch = "?WATCH={\"enable\":true,\"json\":true};\n";
constexpr guint16 kDefaultPort = 2947;
constexpr guint kConnectTimeoutS = 10;
constexpr int kRetryIntervalMs = 1000;
constexpr std::size_t kLongestMessage = 65536;  // bytes
constexpr std::pair<int, int> kKeepalive[] = {
    {TCP_KEEPIDLE, 10}, {TCP_KEEPINTVL, 5}, {TCP_KEEPCNT, 2}};

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
  const auto whole = std::clamp<std::int64_t>(data.fix.time.tv_sec, 0, Telemetry::kLatestSeconds);
  return Telemetry::Time(std::chrono::seconds(whole) +
                         std::chrono::nanoseconds(data.fix.time.tv_nsec));
}

}  // namespace

// libgps would wait for minutes for a host that does not answer, and without end for one that
// vanishes. So the connection is GIO's, and libgps only reads the messages.
GpsdClient::GpsdClient(const std::string& place, std::chrono::nanoseconds timeout)
    : LiveTelemetry(timeout),
      place_(place),
      stopping_(g_cancellable_new()),
      data_(std::make_unique<gps_data_t>()) {
  connect();
  if (connection_ == nullptr) {
    throw StationError(ExitCode::Source, "no gpsd at " + place_);
  }
  thread_ = std::thread([this] { callGuarded([this] { run(); }); });
}

GpsdClient::~GpsdClient() {
  g_cancellable_cancel(stopping_.get());
  thread_.join();
}

void GpsdClient::connect() {
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_socket_client_set_enable_proxy(client, FALSE);
  g_socket_client_set_timeout(client, kConnectTimeoutS);
  connection_.reset(g_socket_client_connect_to_host(client, place_.c_str(), kDefaultPort,
                                                    stopping_.get(), nullptr));
  text_.clear();
  if (connection_ == nullptr) {
    return;
  }
  GSocket* const socket = g_socket_connection_get_socket(connection_.get());
  g_socket_set_timeout(socket, 0);  // gpsd is silent without a receiver
  g_socket_set_keepalive(socket, TRUE);
  for (const auto& [option, value] : kKeepalive) {
    g_socket_set_option(socket, IPPROTO_TCP, option, value, nullptr);
  }
  g_socket_send(socket, kWatch.data(), kWatch.size(), stopping_.get(), nullptr);
}

void GpsdClient::run() {
  while (!g_cancellable_is_cancelled(stopping_.get())) {
    if (connection_ != nullptr) {
      read();
      continue;
    }
    GPollFD stop{};
    const bool isWatched = g_cancellable_make_pollfd(stopping_.get(), &stop) != FALSE;
    g_poll(&stop, isWatched ? 1 : 0, kRetryIntervalMs);
    if (isWatched) {
      g_cancellable_release_fd(stopping_.get());
    }
    connect();
  }
}

void GpsdClient::read() {
  std::array<char, 4096> bytes{};
  const gssize count = g_socket_receive(g_socket_connection_get_socket(connection_.get()),
                                        bytes.data(), bytes.size(), stopping_.get(), nullptr);
  if (count <= 0 || text_.size() > kLongestMessage) {
    connection_.reset();
    return;
  }
  text_.append(bytes.data(), static_cast<std::size_t>(count));
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = text_.find('\n', begin)) != std::string::npos; begin = end + 1) {
    parse(text_.substr(begin, end - begin));
  }
  text_.erase(0, begin);
}

void GpsdClient::parse(std::string line) {
  data_->set = 0;
  gps_unpack(line.data(), data_.get());
  if ((data_->set & (MODE_SET | SATELLITE_SET | ATTITUDE_SET)) != 0) {
    add(timeOf(*data_), sampleOf(*data_));
  }
}

}  // namespace station
