#include "metadata/TelemetryStream.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "base/Callback.h"
#include "base/StationError.h"
#include "metadata/TelemetryLine.h"

namespace station {
namespace {

constexpr std::size_t kLongestLine = 65536;  // bytes, and so of a datagram
constexpr int kMostComplaints = 10;

bool isDatagram(int fd) {
  int type = 0;
  socklen_t size = sizeof(type);
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_DGRAM;
}

}  // namespace

TelemetryStream::TelemetryStream(int input, std::chrono::nanoseconds timeout)
    : LiveTelemetry(timeout),
      input_(input),
      wakeUp_(eventfd(0, EFD_CLOEXEC)),
      thread_([this] { callGuarded([this] { run(); }); }) {}

TelemetryStream::~TelemetryStream() {
  eventfd_write(wakeUp_.get(), 1);
  thread_.join();
}

int TelemetryStream::openStandardInput() {
  return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
}

int TelemetryStream::openUdp(const std::string& place) {
  const std::size_t colon = place.rfind(':');
  const bool hasAddress = colon != std::string::npos;
  const std::string address = hasAddress ? place.substr(0, colon) : "127.0.0.1";
  const std::string port = hasAddress ? place.substr(colon + 1) : place;
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), port.c_str(), &hints, &found) != 0) {
    throw StationError(ExitCode::Usage,
                       "telemetry comes from udp:PORT or udp:ADDRESS:PORT, not udp:" + place);
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  UniqueFd fd(socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0 || bind(fd.get(), found->ai_addr, found->ai_addrlen) != 0) {
    throw StationError(ExitCode::Address,
                       "no telemetry from udp:" + place + ": " + std::strerror(errno));
  }
  return fd.release();
}

// Ends with the input, or when the destructor asks for it.
void TelemetryStream::run() {
  const bool datagrams = isDatagram(input_.get());
  std::string text;
  std::array<char, kLongestLine> bytes{};
  while (true) {
    std::array<pollfd, 2> waiting = {pollfd{input_.get(), POLLIN, 0},
                                     pollfd{wakeUp_.get(), POLLIN, 0}};
    if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
      return;
    }
    if (waiting[1].revents != 0) {
      return;
    }
    if (waiting[0].revents == 0) {
      continue;
    }
    const ssize_t count = read(input_.get(), bytes.data(), bytes.size());
    if (count < 0 || (count == 0 && !datagrams)) {
      return;
    }
    text.append(bytes.data(), static_cast<std::size_t>(count));
    if (datagrams) {
      text += '\n';
    }
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
      receive(text.substr(begin, end - begin));
    }
    text.erase(0, begin);
    if (text.size() > kLongestLine) {
      text.clear();
    }
  }
}

void TelemetryStream::receive(const std::string& line) {
  if (line.empty()) {
    return;
  }
  try {
    const TelemetryLine parsed = TelemetryLine::parse(line);
    add(parsed.time, parsed.sample);
  } catch (const std::invalid_argument& error) {
    if (++refused_ <= kMostComplaints) {
      std::fprintf(stderr, "telemetry: a line is ignored: %s\n", error.what());
    }
  }
}

}  // namespace station
