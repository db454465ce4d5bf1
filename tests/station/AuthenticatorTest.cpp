#include <gtest/gtest.h>

#include <ctime>
#include <fstream>

#include "base/StationError.h"
#include "serve/Authenticator.h"
#include "support/TempFolder.h"

namespace {

using station::Authenticator;

// The hash of RFC 2617, section 3.5: of the password "Circle Of Life".
constexpr const char* kUser = "Mufasa:media-station:939e7578ed9e3c518a452acee763bce9\n";
const std::string kDigest =
    "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", uri=\"/dir/index.html\", qop=auth, "
    "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", nc=00000001, cnonce=\"0a4f113b\", "
    "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\", response=";
// Of "me" and "secret", by md5sum.
constexpr const char* kOther = "me:media-station:aa62ff7e409d5223d90c878afd3ea0de\n";

// Of "they" and "secret", by htpasswd -B and mkpasswd -m yescrypt.
constexpr const char* kSlow[] = {
    "they:$2y$05$AxkjN/45aPBSHJSY/QUm.uHd7q86XtADzTXJHQxg4HgMSJ1jdHmrO\n",
    "they:$y$j9T$SVeWf9gtr/Cb2lPNKYoO4.$fHDAbF.ZZ/w8AohFaYYL3Am3jcawoKyesp1i7oBq0J9\n"};

// Right digests with the nonce of somebody else are asked for again; basic authentication is for
// TLS.
TEST(Authenticator, TakesWhatTheStandardsSay) {
  const TempFolder folder;
  std::ofstream(folder / "users") << kUser << kOther;
  const auto credentials = station::Credentials::fromOption(folder / "users");
  struct Row {
    std::string authorization;
    bool isEncrypted, isAdmitted, isStale;
  };
  for (const auto& [authorization, isEncrypted, isAdmitted, isStale] :
       {Row{kDigest + "\"6629fae49393a05397450978507c4ef1\"", false, false, true},
        Row{kDigest + "\"6629fae49393a05397450978507c4ef0\"", false, false, false},
        Row{"Basic bWU6c2VjcmV0", true, true, false}, Row{"basic bWU6c2VjcmV0", true, true, false},
        Row{"Basic bWU6c2VjcmV0", false, false, false}, Row{"Basic bWU6eA==", true, false, false},
        Row{"Basic bWU=", true, false, false}, Row{"Digest", true, false, false}}) {
    Authenticator authenticator(credentials, Authenticator::Protocol::Http, isEncrypted);
    const Authenticator::Verdict verdict = authenticator.check(
        {nullptr, "192.0.2.7", authorization.c_str(), "GET", "/dir/index.html"});
    EXPECT_EQ(verdict.isAdmitted, isAdmitted) << authorization;
    EXPECT_EQ(verdict.challenges.size(), isEncrypted ? 2U : 1U);
    EXPECT_EQ(verdict.challenges[0].find("stale=true") != std::string::npos, isStale);
  }
}

// Beside one that is for digests, too; a second request is admitted by its proof.
TEST(Authenticator, TakesSlowHashesUnderTlsOnly) {
  const TempFolder folder;
  for (const char* const slow : kSlow) {
    std::ofstream(folder / "users") << kOther << slow;
    Authenticator authenticator(station::Credentials::fromOption(folder / "users"),
                                Authenticator::Protocol::Rtsp, true);
    for (const auto& [authorization, isAdmitted] :
         {std::pair("Basic dGhleTpzZWNyZXQ=", true), std::pair("Basic dGhleTpzZWNyZXQ=", true),
          std::pair("Basic dGhleTpzZWNyZXQx", false), std::pair("Basic bWU6c2VjcmV0", true)}) {
      const auto verdict =
          authenticator.check({nullptr, "192.0.2.7", authorization, "OPTIONS", nullptr});
      EXPECT_EQ(verdict.isAdmitted, isAdmitted) << authorization;
      EXPECT_EQ(verdict.challenges, std::vector<std::string>{"Basic realm=\"media-station\""});
    }
    std::ofstream(folder / "users") << slow;
    EXPECT_THROW(Authenticator(station::Credentials::fromOption(folder / "users"),
                               Authenticator::Protocol::Rtsp, false),
                 station::StationError);
  }
}

// Nobody keeps the server busy with hashes; who came in before goes on.
TEST(Authenticator, GuessesBeyondTheLimitCostNoSlowHash) {
  const TempFolder folder;
  std::ofstream(folder / "users") << kSlow[0];
  Authenticator authenticator(station::Credentials::fromOption(folder / "users"),
                              Authenticator::Protocol::Http, true);
  const auto check = [&authenticator](const char* authorization) {
    return authenticator.check({nullptr, "192.0.2.7", authorization, "GET", nullptr});
  };
  EXPECT_TRUE(check("Basic dGhleTpzZWNyZXQ=").isAdmitted);
  const auto timeOf = [&check](int guesses, std::size_t challenges) {
    const std::clock_t begin = std::clock();
    for (int i = 0; i < guesses; ++i) {
      EXPECT_EQ(check("Basic dGhleTpzZWNyZXQx").challenges.size(), challenges);
    }
    return std::clock() - begin;
  };
  const std::clock_t allowed = timeOf(10, 1);
  EXPECT_LT(timeOf(40, 0), allowed);
  EXPECT_TRUE(check("Basic dGhleTpzZWNyZXQ=").isAdmitted);
}

}  // namespace
