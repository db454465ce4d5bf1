#include "http/StreamResponse.h"

#include <memory>
#include <string>
#include <utility>

#include "base/Callback.h"

namespace station {
namespace {

constexpr std::chrono::seconds kFirstPictureTimeout{5};

struct BytesUnref {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
using BytesPtr = std::unique_ptr<GBytes, BytesUnref>;

}  // namespace

StreamResponse::StreamResponse(SoupServerMessage* message, HttpStream& stream, Kind kind,
                               std::function<void()> onWritten)
    : message_(SOUP_SERVER_MESSAGE(g_object_ref(message))),
      stream_(stream),
      kind_(kind),
      onWritten_(std::move(onWritten)) {
  if (kind_ == Kind::Mp4) {
    mp4_ = stream_.mp4();
  }
  if (kind_ == Kind::Stream && stream_.codec() != HttpStream::Codec::Mjpeg) {
    cursor_.next = buffer().end();  // live: addReader() asks for a key picture
  }
  stream_.addReader();  // last of what may throw
  if (kind_ != Kind::Stream) {
    timeout_.emplace(kFirstPictureTimeout, [this] {
      refuseLate();
      return false;
    });
  }
  soup_server_message_pause(message_.get());
  write();
}

StreamResponse::~StreamResponse() {
  g_signal_handlers_disconnect_by_data(message_.get(), this);
  stream_.removeReader();
}

const AccessUnitBuffer& StreamResponse::buffer() const {
  return mp4_ != nullptr ? mp4_->buffer() : stream_.buffer();
}

// Whether the header is ready: that of MP4 comes out of the muxer.
bool StreamResponse::begin() {
  if (begun_ || kind_ == Kind::Snapshot) {
    return true;
  }
  if (kind_ == Kind::Mp4) {
    const std::optional<Mp4Muxer::Header> header = mp4_->header();
    if (!header) {
      return false;
    }
    beginStream(header->contentType.c_str());
    const BytesPtr bytes(g_bytes_new(header->bytes.data(), header->bytes.size()));
    append(bytes.get());
    soup_server_message_unpause(message_.get());
  } else {
    beginStream(stream_.contentType());
  }
  begun_ = true;
  return true;
}

void StreamResponse::beginStream(const char* contentType) {
  soup_server_message_set_status(message_.get(), SOUP_STATUS_OK, nullptr);
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message_.get());
  soup_message_headers_set_content_type(headers, contentType, nullptr);
  const bool chunked = soup_server_message_get_http_version(message_.get()) != SOUP_HTTP_1_0;
  soup_message_headers_set_encoding(headers, chunked ? SOUP_ENCODING_CHUNKED : SOUP_ENCODING_EOF);
  soup_message_body_set_accumulate(soup_server_message_get_response_body(message_.get()), FALSE);
  g_signal_connect(message_.get(), "wrote-chunk", G_CALLBACK(guarded<onWritten>), this);
}

void StreamResponse::write() {
  if (answered_ || !begin() || unwritten_ > 0) {
    return;
  }
  const std::uint64_t skipped = cursor_.skipped;
  const BytesPtr accessUnit(buffer().read(cursor_));
  stream_.addSkipped(cursor_.skipped - skipped);
  if (accessUnit == nullptr) {
    return;
  }
  if (kind_ == Kind::Snapshot) {
    answerSnapshot(accessUnit.get());
  } else if (stream_.codec() == HttpStream::Codec::Mjpeg) {
    appendPart(accessUnit.get());
  } else {
    append(accessUnit.get());
  }
  soup_server_message_unpause(message_.get());
}

void StreamResponse::append(GBytes* bytes) {
  soup_message_body_append_bytes(soup_server_message_get_response_body(message_.get()), bytes);
  ++unwritten_;
}

// Appends the next part's boundary, too: browsers show a part only when it is complete.
void StreamResponse::appendPart(GBytes* image) {
  const std::string head =
      std::string(hasPart_ ? "" : "--picture\r\n") +
      "Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(g_bytes_get_size(image)) +
      "\r\n\r\n";
  hasPart_ = true;
  const BytesPtr before(g_bytes_new(head.data(), head.size()));
  append(before.get());
  append(image);
  static constexpr char kBoundary[] = "\r\n--picture\r\n";
  const BytesPtr after(g_bytes_new_static(kBoundary, sizeof(kBoundary) - 1));
  append(after.get());
}

void StreamResponse::answerSnapshot(GBytes* image) {
  gsize size = 0;
  const auto* const data = static_cast<const char*>(g_bytes_get_data(image, &size));
  soup_server_message_set_status(message_.get(), SOUP_STATUS_OK, nullptr);
  soup_server_message_set_response(message_.get(), "image/jpeg", SOUP_MEMORY_COPY, data, size);
  answered_ = true;
}

void StreamResponse::refuseLate() {
  if (!answered_ && !begun_) {
    soup_server_message_set_status(message_.get(), SOUP_STATUS_SERVICE_UNAVAILABLE, nullptr);
    answered_ = true;
    soup_server_message_unpause(message_.get());
  }
}

void StreamResponse::onWritten(SoupServerMessage* /*message*/, gpointer self) {
  auto* const response = static_cast<StreamResponse*>(self);
  response->onWritten_();
  --response->unwritten_;
  response->write();
}

}  // namespace station
