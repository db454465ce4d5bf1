#pragma once

#include <chrono>
#include <string>

#include <media_backend/GstVideoBackend.h>

#include "base/Command.h"

namespace station {

// The command "doctor": tests the board's elements and the library's descriptions, and prints a
// verdict, what to do next, and the details. Throws StationError after printing if the board is not
// usable: NoPlatform, or CodecNotUsable if no codec that counts works.
class Doctor : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  using Codec = media_backend::GstVideoBackend::Codec;

  std::string board_;
  Codec codec_ = Codec::Unknown;    // that counts; Unknown: H.264 and H.265
  std::chrono::seconds limit_{10};  // for each check
  bool json_ = false;
};

}  // namespace station
