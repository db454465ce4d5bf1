#pragma once

#include <string>
#include <utility>

#include "audio/LiveAudio.h"
#include "base/Command.h"
#include "camera/LiveCamera.h"
#include "serve/Listener.h"
#include "serve/MainLoop.h"
#include "serve/ServeOptions.h"

namespace station {

// What the commands "serve rtsp" and "serve http" share: live video of a camera, until Ctrl-C.
class ServeCommand : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() final;

 protected:
  ServeCommand(const char* name, const char* help, std::uint16_t port, Codecs codecs)
      : name_(name), help_(help), codecs_(std::move(codecs)) {
    options_.port = port;
  }

  // `audio` is null for none. Makes the server, calls announce() and runs the loop.
  virtual void serve(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
                     LiveAudio* audio, MainLoop& loop) = 0;
  void announce(const Listener& listener, const std::string& path,
                const media_backend::GstVideoBackend& backend, const FrameFormat& frames) const;

  ServeOptions options_;

 private:
  LiveCamera::Annotate annotator() const;

  const char* const name_;
  const char* const help_;
  const Codecs codecs_;
  std::string board_;
};

}  // namespace station
