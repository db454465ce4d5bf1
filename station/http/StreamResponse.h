#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <libsoup/soup.h>

#include "base/Handles.h"
#include "http/Stream.h"
#include "serve/Timer.h"

namespace station {

// The response to a request for a stream, one of the stream's readers while it lives. Holds at most
// one access unit; the others wait in the stream's buffer, or are skipped.
//
// Threads: the main context's.
class StreamResponse {
 public:
  enum class Kind { Stream, Mp4, Snapshot };

  // Answers `message`, and calls `onWritten` after each chunk that was written. Throws StationError
  // (Pipeline) if the stream does not start.
  StreamResponse(SoupServerMessage* message, HttpStream& stream, Kind kind,
                 std::function<void()> onWritten);
  ~StreamResponse();
  StreamResponse(const StreamResponse&) = delete;
  StreamResponse& operator=(const StreamResponse&) = delete;

  bool isFor(const SoupServerMessage* message) const { return message_.get() == message; }

  // Writes the next access unit if there is one and the last has been written.
  void write();

 private:
  const AccessUnitBuffer& buffer() const;
  bool begin();
  void beginStream(const char* contentType);
  void append(GBytes* bytes);
  void appendPart(GBytes* image);
  void answerSnapshot(GBytes* image);
  void refuseLate();
  static void onWritten(SoupServerMessage* message, gpointer self);

  const GstPtr<SoupServerMessage> message_;
  HttpStream& stream_;
  const Kind kind_;
  const std::function<void()> onWritten_;
  std::shared_ptr<const Mp4Muxer> mp4_;
  std::optional<Timer> timeout_;  // of the first picture
  AccessUnitBuffer::Cursor cursor_;
  unsigned int unwritten_ = 0;  // chunks
  bool begun_ = false;          // its header is ready
  bool hasPart_ = false;        // of motion JPEG
  bool answered_ = false;       // completely
};

}  // namespace station
