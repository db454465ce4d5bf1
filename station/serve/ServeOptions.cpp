#include "serve/ServeOptions.h"

#include <CLI/CLI.hpp>

namespace station {

void ServeOptions::addPortTo(CLI::App& command, const std::string& prefix) {
  command.add_option("--" + prefix + "port", port, "TCP port; 0 for any free one")
      ->check(CLI::Range(0U, 65535U))
      ->capture_default_str();
}

void ServeOptions::addRtspTo(CLI::App& command, const std::string& prefix) {
  command.add_option("--" + prefix + "path", path, "Path of the stream")
      ->check([](const std::string& text) {
        return text.rfind('/', 0) == 0 ? "" : "the path has to begin with /";
      })
      ->capture_default_str();
  command.add_option("--mtu", mtu, "Most bytes of an RTP packet")
      ->check(CLI::Range(64U, 65535U))
      ->capture_default_str();
}

void ServeOptions::addHttpTo(CLI::App& command) {
  command
      .add_option(
          "--host", hosts,
          "Name or address that clients may ask for over HTTP, beside those of the machine; "
          "may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
}

void ServeOptions::addTo(CLI::App& command) {
  command.add_option("--bind", address, "Numeric address to serve on")->capture_default_str();
  command
      .add_option_function<std::string>(
          "--auth",
          [this](const std::string& text) { credentials = Credentials::fromOption(text); },
          "Ask for a password: of the users in FILE, by htdigest (realm media-station) or, with "
          "--tls, htpasswd -B; or of USER, the first line of FILE")
      ->type_name("[USER:]FILE");
  command
      .add_option_function<std::string>(
          "--tls", [this](const std::string& text) { certificate = certificateFromOption(text); },
          "CERT:KEY, two PEM files, to serve over TLS only")
      ->type_name("CERT:KEY");
  command.add_option("--max-clients", maxClients, "Clients that may watch at once")
      ->check(CLI::Range(1U, 10000U))
      ->capture_default_str();
  command.add_flag("--quiet", quiet, "Do not log clients and the camera");
}

}  // namespace station
