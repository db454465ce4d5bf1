#include "serve/Credentials.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>
#include <vector>

#include <crypt.h>
#include <glib.h>

#include "base/StationError.h"

namespace station {
namespace {

// In a time that does not depend on where the texts differ.
bool isEqual(const std::string& one, const std::string& other) {
  bool differs = one.size() != other.size();
  for (std::size_t i = 0; i < one.size() && i < other.size(); ++i) {
    differs |= one[i] != other[i];
  }
  return !differs;
}

std::string hashOf(const std::string& user, const std::string& password) {
  return md5(user + ":" + Credentials::kRealm + ":" + password);
}

std::vector<std::string> readLines(const std::string& file) {
  std::vector<std::string> lines;
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    lines.push_back(line);
  }
  if (!stream.eof()) {
    throw StationError(ExitCode::Usage,
                       "password file " + file + ": " + std::generic_category().message(errno));
  }
  return lines;
}

void warnIfReadableByOthers(const std::string& file) {
  using std::filesystem::perms;
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(file, error);
  if (std::filesystem::is_regular_file(status) &&
      (status.permissions() & (perms::group_all | perms::others_all)) != perms::none) {
    std::fprintf(stderr, "warning: other users may read or change %s: chmod 600 %s\n", file.c_str(),
                 file.c_str());
  }
}

std::string readPassword(const std::string& file) {
  const std::vector<std::string> lines = readLines(file);
  if (lines.empty() || lines.front().empty()) {
    throw StationError(ExitCode::Usage, "no password on the first line of " + file);
  }
  return lines.front();
}

// By the library of the system's own passwords.
bool matchSlowHash(const std::string& password, const std::string& hash) {
  const auto work = std::make_unique<crypt_data>();
  const char* const result = crypt_r(password.c_str(), hash.c_str(), work.get());
  return result != nullptr && isEqual(result, hash);
}

}  // namespace

std::string md5(const std::string& text) {
  g_autofree gchar* hash = g_compute_checksum_for_data(
      G_CHECKSUM_MD5, reinterpret_cast<const guchar*>(text.data()), text.size());
  return hash;
}

Credentials Credentials::fromOption(const std::string& option) {
  Credentials credentials;
  const std::size_t colon = option.find(':');
  const std::string file = colon == std::string::npos ? option : option.substr(colon + 1);
  if (colon == 0 || file.empty()) {
    throw StationError(ExitCode::Usage, "--auth takes [USER:]FILE, not \"" + option + "\"");
  }
  if (colon == std::string::npos) {
    credentials.readHashes(file);
  } else {
    const std::string user = option.substr(0, colon);
    credentials.hashes_[user] = hashOf(user, readPassword(file));
  }
  warnIfReadableByOthers(file);
  return credentials;
}

void Credentials::readHashes(const std::string& file) {
  for (const std::string& line : readLines(file)) {
    const std::size_t realm = line.find(':') + 1;
    const std::size_t hash = line.find(':', realm) + 1;
    const bool isSlow = realm > 1 && line.compare(realm, 1, "$") == 0 && hash == 0;
    if (isSlow && crypt_checksalt(line.c_str() + realm) == CRYPT_SALT_OK) {
      slowHashes_[line.substr(0, realm - 1)] = line.substr(realm);
      continue;
    }
    if (realm <= 1 || hash == 0 || hash + 32 != line.size() ||
        line.find_first_not_of("0123456789abcdef", hash) != std::string::npos) {
      throw StationError(ExitCode::Usage,
                         file +
                             " has a line that is neither USER:REALM:HASH, as htdigest writes "
                             "it, nor USER:HASH, as htpasswd -B does");
    }
    if (line.compare(realm, hash - 1 - realm, kRealm) == 0) {
      hashes_[line.substr(0, realm - 1)] = line.substr(hash);
    }
  }
  if (hashes_.empty() && slowHashes_.empty()) {
    throw StationError(ExitCode::Usage,
                       "no user of the realm " + std::string(kRealm) + " in " + file);
  }
}

bool Credentials::matchBasic(const char* base64) const {
  gsize length = 0;
  g_autofree guchar* bytes = g_base64_decode(base64, &length);
  const std::string text(reinterpret_cast<const char*>(bytes), length);
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    return false;
  }
  const std::string user = text.substr(0, colon);
  const std::string password = text.substr(colon + 1);
  if (const auto slow = slowHashes_.find(user); slow != slowHashes_.end()) {
    return matchSlowHash(password, slow->second);
  }
  const auto found = hashes_.find(user);
  return found != hashes_.end() && isEqual(hashOf(user, password), found->second);
}

bool Credentials::matchDigest(const std::string& user, const std::string& rest,
                              const std::string& response) const {
  const auto found = hashes_.find(user);
  return found != hashes_.end() && isEqual(md5(found->second + ":" + rest), response);
}

}  // namespace station
