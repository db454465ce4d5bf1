#include "http/StreamResponse.h"

#include <memory>
#include <string>

namespace station {
namespace {

constexpr gint64 kSnapshotTimeout = 5000000;  // microseconds

struct BytesUnref {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
using BytesPtr = std::unique_ptr<GBytes, BytesUnref>;

}  // namespace

HttpViewer::HttpViewer(SoupServerMessage* message, HttpStream& stream, Kind kind)
    : message_(SOUP_SERVER_MESSAGE(g_object_ref(message))), stream_(stream), kind_(kind) {
  stream_.addViewer();
  if (kind_ == Kind::Stream) {
    beginStream();
  }
  soup_server_message_pause(message_.get());
  pump();
}

HttpViewer::~HttpViewer() {
  g_signal_handlers_disconnect_by_data(message_.get(), this);
  stream_.removeViewer();
}

void HttpViewer::beginStream() {
  soup_server_message_set_status(message_.get(), SOUP_STATUS_OK, nullptr);
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message_.get());
  soup_message_headers_set_content_type(headers, stream_.contentType(), nullptr);
  const bool chunked = soup_server_message_get_http_version(message_.get()) != SOUP_HTTP_1_0;
  soup_message_headers_set_encoding(headers, chunked ? SOUP_ENCODING_CHUNKED : SOUP_ENCODING_EOF);
  soup_message_body_set_accumulate(soup_server_message_get_response_body(message_.get()), FALSE);
  g_signal_connect(message_.get(), "wrote-chunk", G_CALLBACK(onWritten), this);
}

void HttpViewer::pump() {
  if (unwritten_ > 0 || answered_) {
    return;
  }
  const std::uint64_t skipped = cursor_.skipped;
  const BytesPtr picture(stream_.ring().read(cursor_));
  stream_.addSkipped(cursor_.skipped - skipped);
  if (picture == nullptr) {
    return;
  }
  if (kind_ == Kind::Snapshot) {
    answerSnapshot(picture.get());
  } else if (stream_.codec() == HttpStream::Codec::Mjpeg) {
    appendPart(picture.get());
  } else {
    append(picture.get());
  }
  soup_server_message_unpause(message_.get());
}

void HttpViewer::append(GBytes* bytes) {
  soup_message_body_append_bytes(soup_server_message_get_response_body(message_.get()), bytes);
  ++unwritten_;
}

// A picture ends with the boundary of the next part: browsers show a part only when it has ended.
void HttpViewer::appendPart(GBytes* picture) {
  const std::string head =
      std::string(begun_ ? "" : "--picture\r\n") +
      "Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(g_bytes_get_size(picture)) +
      "\r\n\r\n";
  begun_ = true;
  const BytesPtr before(g_bytes_new(head.data(), head.size()));
  append(before.get());
  append(picture);
  static constexpr char kBoundary[] = "\r\n--picture\r\n";
  const BytesPtr after(g_bytes_new_static(kBoundary, sizeof(kBoundary) - 1));
  append(after.get());
}

void HttpViewer::answerSnapshot(GBytes* picture) {
  gsize size = 0;
  const auto* const data = static_cast<const char*>(g_bytes_get_data(picture, &size));
  soup_server_message_set_status(message_.get(), SOUP_STATUS_OK, nullptr);
  soup_server_message_set_response(message_.get(), "image/jpeg", SOUP_MEMORY_COPY, data, size);
  answered_ = true;
}

void HttpViewer::tick() {
  if (kind_ == Kind::Snapshot && !answered_ && g_get_monotonic_time() - begin_ > kSnapshotTimeout) {
    soup_server_message_set_status(message_.get(), SOUP_STATUS_SERVICE_UNAVAILABLE, nullptr);
    answered_ = true;
    soup_server_message_unpause(message_.get());
  }
}

void HttpViewer::onWritten(SoupServerMessage* /*message*/, gpointer self) {
  auto* const viewer = static_cast<HttpViewer*>(self);
  --viewer->unwritten_;
  viewer->pump();
}

}  // namespace station
