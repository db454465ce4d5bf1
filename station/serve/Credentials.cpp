#include "serve/Credentials.h"

#include <cerrno>
#include <fstream>
#include <system_error>

#include <glib.h>
#include <sodium.h>

#include "base/StationError.h"

namespace station {

Credentials Credentials::fromOption(const std::string& userAndFile) {
  const std::size_t colon = userAndFile.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == userAndFile.size()) {
    throw StationError(ExitCode::Usage, "--auth takes USER:FILE, not \"" + userAndFile + "\"");
  }
  const std::string file = userAndFile.substr(colon + 1);
  std::ifstream stream(file);
  std::string password;
  if (!std::getline(stream, password) && !stream.eof()) {
    throw StationError(ExitCode::Usage,
                       "password file " + file + ": " + std::generic_category().message(errno));
  }
  if (!password.empty() && password.back() == '\r') {
    password.pop_back();
  }
  if (password.empty()) {
    throw StationError(ExitCode::Usage, "no password on the first line of " + file);
  }
  return {userAndFile.substr(0, colon), password};
}

Credentials::Credentials(std::string_view user, std::string_view password)
    : user_(hash(user)), password_(hash(password)) {}

bool Credentials::match(std::string_view user, std::string_view password) const {
  const Hash userHash = hash(user);
  const Hash passwordHash = hash(password);
  const int userDiffers = sodium_memcmp(userHash.data(), user_.data(), user_.size());
  const int passwordDiffers =
      sodium_memcmp(passwordHash.data(), password_.data(), password_.size());
  return userDiffers == 0 && passwordDiffers == 0;
}

bool Credentials::matchBasic(const char* base64) const {
  gsize length = 0;
  g_autofree guchar* bytes = g_base64_decode(base64, &length);
  const std::string text(reinterpret_cast<const char*>(bytes), length);
  const std::size_t colon = text.find(':');
  return colon != std::string::npos && match(text.substr(0, colon), text.substr(colon + 1));
}

// Equal lengths keep the comparison's time independent of the text.
Credentials::Hash Credentials::hash(std::string_view text) {
  Hash result{};
  crypto_generichash(result.data(), result.size(),
                     reinterpret_cast<const unsigned char*>(text.data()), text.size(), nullptr, 0);
  return result;
}

}  // namespace station
