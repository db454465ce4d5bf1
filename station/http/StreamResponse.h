#pragma once

#include <libsoup/soup.h>

#include "base/GstPtr.h"
#include "http/Stream.h"

namespace station {

// A request that takes pictures of a stream, counted among its viewers while it lives. Holds at
// most one picture at a time; the rest waits in the stream's ring, or passes.
//
// Threads: one.
class HttpViewer {
 public:
  enum class Kind { Stream, Snapshot };

  // Answers `message`; throws StationError (Pipeline) if the stream does not start.
  HttpViewer(SoupServerMessage* message, HttpStream& stream, Kind kind);
  ~HttpViewer();
  HttpViewer(const HttpViewer&) = delete;
  HttpViewer& operator=(const HttpViewer&) = delete;

  const HttpStream& stream() const { return stream_; }
  Kind kind() const { return kind_; }
  bool isAnsweredBy(const SoupServerMessage* message) const { return message_.get() == message; }

  // Sends the next picture if there is one and the last has gone.
  void pump();
  // A snapshot that has waited too long is answered with an error.
  void tick();

 private:
  void beginStream();
  void append(GBytes* bytes);
  void appendPart(GBytes* picture);
  void answerSnapshot(GBytes* picture);
  static void onWritten(SoupServerMessage* message, gpointer self);

  const GstPtr<SoupServerMessage> message_;
  HttpStream& stream_;
  const Kind kind_;
  const gint64 begin_ = g_get_monotonic_time();
  PictureRing::Cursor cursor_;
  unsigned int unwritten_ = 0;  // chunks
  bool begun_ = false;
  bool answered_ = false;
};

}  // namespace station
