#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "serve/ClientLog.h"

namespace station {

struct RequestHead;

// Checks an RTSP client's input before the server library reads it:
// - a request passes when it is complete, within the limits and names no other client's session; it
//   gets CRLF line ends;
// - interleaved data is dropped: the library leaks RTP packets, and a packet with the server's SSRC
//   counts as a collision, which ends the stream for all clients;
// - an HTTP tunnel's base64 is decoded, checked in the same way and encoded again;
// - a client that sends too much is refused.
//
// Threads: one at a time.
class ClientFilter {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  struct Refusal {
    std::string answer;  // a response, or empty
    ClientEvent event;
    std::string reason;  // for the log
  };

  // `owner` is the prefix of the client's session ids, unless the client opens a tunnel. Without
  // `hasPlace`, the first request is refused with 503.
  ClientFilter(std::string owner, bool hasPlace);

  // Takes bytes from the client; does nothing after a refusal.
  void push(std::string_view bytes, TimePoint now);
  // Refuses the client if its request has not become complete in time.
  void checkTime(TimePoint now);

  const std::optional<Refusal>& refusal() const { return refusal_; }
  // When checkTime() would refuse the client, while a request is incomplete.
  std::optional<TimePoint> deadline() const;
  // What the library may read; the caller removes it.
  std::string& output() { return output_; }
  const std::string& output() const { return output_; }
  // The connection's, or the tunnel's.
  const std::string& owner() const { return owner_; }
  // Whether the client has sent interleaved data since the last call.
  bool takeActivity();

 private:
  enum class Mode { Plain, TunnelIn, TunnelOut };

  void charge(std::size_t bytes);
  void feed(std::string_view bytes);
  std::size_t takePiece(std::string_view rest);
  std::size_t takeData(std::string_view rest);
  std::size_t takeRequest(std::string_view rest);
  void judge(const RequestHead& request);
  void enterTunnel(const RequestHead& request);
  void pass(std::string_view text);
  void refuse(const RequestHead& request, ClientEvent event, const char* status,
              const char* reason);

  std::string owner_;
  const bool hasPlace_;
  Mode mode_ = Mode::Plain;
  bool begun_ = false;  // a request has passed
  std::string input_, output_;
  std::size_t bodyLeft_ = 0, dataLeft_ = 0;
  int decoderState_ = 0;
  unsigned int decoderSave_ = 0;
  double allowance_;  // bytes
  TimePoint charged_{};
  std::optional<TimePoint> incompleteSince_;
  bool isActive_ = false;
  std::optional<Refusal> refusal_;
};

}  // namespace station
