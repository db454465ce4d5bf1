#include "rtsp/ClientFilter.h"

#include <algorithm>
#include <array>
#include <random>
#include <utility>
#include <vector>

#include <glib.h>

#include "rtsp/RequestHead.h"

namespace station {
namespace {

constexpr std::size_t kMaxHeadBytes{8192};
constexpr std::size_t kMaxLineBytes = 4000;  // the library cuts lines off at 4095
constexpr std::size_t kMaxLines = 64;
constexpr std::size_t kMaxBodyBytes{16384};
constexpr std::chrono::seconds kRequestTime{15};
// Rate limit of a client's input (token bucket), in bytes. A player sends a few hundred a second.
constexpr double kBurst = 64 * 1024;
constexpr double kPerSecond = 8 * 1024;
constexpr std::size_t kPerMessage = 128;  // added for each request and packet

// A keyed hash: a session id must not reveal the cookie of its tunnel.
std::string tunnelOwner(std::string_view cookie) {
  static const auto kHashKey = [] {
    std::array<std::random_device::result_type, 8> key{};
    std::random_device source;
    std::generate(key.begin(), key.end(), std::ref(source));
    return key;
  }();
  g_autofree gchar* hash = g_compute_hmac_for_data(
      G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(kHashKey.data()), sizeof(kHashKey),
      reinterpret_cast<const guchar*>(cookie.data()), cookie.size());
  return std::string("t") + hash;
}

}  // namespace

ClientFilter::ClientFilter(std::string owner, bool hasPlace)
    : owner_(std::move(owner)), hasPlace_(hasPlace), allowance_(kBurst) {}

void ClientFilter::push(std::string_view bytes, TimePoint now) {
  const std::chrono::duration<double> elapsed = now - charged_;
  allowance_ = std::min(kBurst, allowance_ + elapsed.count() * kPerSecond);
  charged_ = now;
  charge(bytes.size());
  feed(bytes);
  if (!incompleteSince_ && (!input_.empty() || bodyLeft_ > 0 || dataLeft_ > 0)) {
    incompleteSince_ = now;
  }
}

void ClientFilter::checkTime(TimePoint now) {
  if (!refusal_ && incompleteSince_ && now >= *deadline()) {
    refusal_ = Refusal{"", ClientEvent::Time, "no whole request in 15 s"};
  }
}

std::optional<ClientFilter::TimePoint> ClientFilter::deadline() const {
  return incompleteSince_ ? std::optional(*incompleteSince_ + kRequestTime) : std::nullopt;
}

bool ClientFilter::takeActivity() {
  return std::exchange(isActive_, false);
}

void ClientFilter::charge(std::size_t bytes) {
  allowance_ -= static_cast<double>(bytes);
  if (!refusal_ && allowance_ < 0) {
    refusal_ = Refusal{"", ClientEvent::Request, "it sends too much"};
  }
}

void ClientFilter::feed(std::string_view bytes) {
  if (mode_ == Mode::TunnelIn) {
    std::string decoded(bytes.size() + 3, '\0');
    decoded.resize(g_base64_decode_step(bytes.data(), bytes.size(),
                                        reinterpret_cast<guchar*>(decoded.data()), &decoderState_,
                                        &decoderSave_));
    input_ += decoded;
  } else {
    input_ += bytes;
  }
  const Mode mode = mode_;
  std::string_view rest = input_;
  while (!refusal_ && mode_ == mode && !rest.empty()) {
    const std::size_t taken = takePiece(rest);
    if (taken == 0) {
      break;
    }
    rest.remove_prefix(taken);
  }
  std::string left(rest);
  input_ = std::move(left);
  if (mode_ != mode) {
    feed(std::exchange(input_, {}));  // what follows is encoded
  }
}

// Returns the number of bytes consumed, 0 if it needs more input. `rest` is not empty.
std::size_t ClientFilter::takePiece(std::string_view rest) {
  if (mode_ == Mode::TunnelOut) {
    return rest.size();
  }
  if (bodyLeft_ > 0 || dataLeft_ > 0) {
    std::size_t& left = bodyLeft_ > 0 ? bodyLeft_ : dataLeft_;
    const std::size_t taken = std::min(left, rest.size());
    if (bodyLeft_ > 0) {
      pass(rest.substr(0, taken));
    }
    left -= taken;
    if (left == 0) {
      incompleteSince_.reset();
    }
    return taken;
  }
  if (rest.front() == '\r' || rest.front() == '\n') {
    return std::min(rest.find_first_not_of("\r\n"), rest.size());
  }
  return rest.front() == '$' ? takeData(rest) : takeRequest(rest);
}

// Interleaved data: "$", channel, length, packet.
std::size_t ClientFilter::takeData(std::string_view rest) {
  constexpr std::size_t kHeader = 4;
  if (rest.size() < kHeader) {
    return 0;
  }
  dataLeft_ =
      std::size_t{static_cast<unsigned char>(rest[2])} << 8U | static_cast<unsigned char>(rest[3]);
  isActive_ = true;
  if (dataLeft_ == 0) {
    incompleteSince_.reset();
  }
  charge(kPerMessage);
  return kHeader;
}

// `rest` begins with no line end, so the request line is not empty.
std::size_t ClientFilter::takeRequest(std::string_view rest) {
  std::vector<std::string_view> lines;
  std::size_t begin = 0;
  while (true) {
    const std::size_t end = rest.find('\n', begin);
    const std::size_t reached = std::min(end, rest.size());
    if (reached > kMaxHeadBytes || reached - begin > kMaxLineBytes || lines.size() > kMaxLines) {
      refuse(RequestHead({rest.substr(0, rest.find('\n'))}), ClientEvent::Request,
             "413 Request Entity Too Large", "its request is too long");
      return 0;
    }
    if (end == std::string_view::npos) {
      return 0;
    }
    std::string_view line = rest.substr(begin, end - begin);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    begin = end + 1;
    if (line.empty()) {
      break;
    }
    lines.push_back(line);
  }
  charge(kPerMessage);
  judge(RequestHead(std::move(lines)));
  return begin;
}

void ClientFilter::judge(const RequestHead& request) {
  constexpr std::size_t kMostDigits = 9;
  const std::string_view length = request.lengths.empty() ? "0" : request.lengths.front();
  const bool hasLength = !length.empty() && length.size() <= kMostDigits &&
                         length.find_first_not_of("0123456789") == std::string_view::npos;
  const bool isTunnel = request.isHttp && mode_ == Mode::Plain && !begun_ &&
                        !request.cookie.empty() &&
                        (request.method == "GET" || request.method == "POST");
  const std::string ownPrefix = owner_ + "-";
  if (!hasPlace_) {
    refuse(request, ClientEvent::Limit, "503 Service Unavailable",
           "as many clients watch as --max-clients allows");
  } else if (!request.isWellFormed || (request.isHttp && !isTunnel) || request.lengths.size() > 1 ||
             (!isTunnel && !hasLength)) {
    refuse(request, ClientEvent::Request, "400 Bad Request", "its request is malformed");
  } else if (!isTunnel && std::stoul(std::string(length)) > kMaxBodyBytes) {
    refuse(request, ClientEvent::Request, "413 Request Entity Too Large",
           "its request is too long");
  } else if (std::any_of(request.sessions.begin(), request.sessions.end(), [&](auto session) {
               return session.substr(0, ownPrefix.size()) != ownPrefix;
             })) {
    refuse(request, ClientEvent::Session, "454 Session Not Found",
           "it names a session that is not its own");
  } else {
    incompleteSince_.reset();
    begun_ = true;
    std::string text;
    for (const std::string_view line : request.lines) {
      text.append(line).append("\r\n");
    }
    pass(text + "\r\n");
    if (isTunnel) {
      enterTunnel(request);
    } else {
      bodyLeft_ = std::stoul(std::string(length));
    }
  }
}

void ClientFilter::enterTunnel(const RequestHead& request) {
  owner_ = tunnelOwner(request.cookie);
  mode_ = request.method == "POST" ? Mode::TunnelIn : Mode::TunnelOut;
}

void ClientFilter::pass(std::string_view text) {
  if (mode_ == Mode::TunnelIn) {
    g_autofree gchar* encoded =
        g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size());
    output_ += encoded;
  } else {
    output_ += text;
  }
}

// A tunnel's answers go through its other connection.
void ClientFilter::refuse(const RequestHead& request, ClientEvent event, const char* status,
                          const char* reason) {
  if (refusal_) {
    return;
  }
  std::string answer;
  if (mode_ == Mode::Plain) {
    answer = std::string(request.isHttp ? "HTTP/1.0 " : "RTSP/1.0 ") + status + "\r\n";
    if (!request.cseq.empty()) {
      answer.append("CSeq: ").append(request.cseq).append("\r\n");
    }
    answer += "Connection: close\r\n\r\n";
  }
  refusal_ = Refusal{std::move(answer), event, reason};
}

}  // namespace station
