#include "serve/Authenticator.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <libsoup/soup.h>
#include <sys/random.h>

#include "base/StationError.h"
#include "serve/Client.h"

namespace station {
namespace {

constexpr gint64 kNonceSeconds = 300;
constexpr std::size_t kSecretBytes = 32;

struct FreeParameters {
  void operator()(GHashTable* parameters) const { soup_header_free_param_list(parameters); }
};

std::string randomBytes() {
  std::string bytes(kSecretBytes, '\0');
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw StationError(ExitCode::Internal, "no random numbers");
  }
  return bytes;
}

// The text after the scheme and a space; null for another scheme.
const char* parametersOf(const char* authorization, const char* scheme) {
  const std::size_t length = std::char_traits<char>::length(scheme);
  return g_ascii_strncasecmp(authorization, scheme, length) == 0 && authorization[length] == ' '
             ? authorization + length + 1
             : nullptr;
}

gint64 nowSeconds() {
  return g_get_monotonic_time() / G_USEC_PER_SEC;
}

}  // namespace

Authenticator::Authenticator(Credentials credentials, Protocol protocol, bool isEncrypted)
    : credentials_(std::move(credentials)),
      protocol_(protocol),
      isEncrypted_(isEncrypted),
      secret_(randomBytes()) {
  if (!isEncrypted && !credentials_.hasDigestUsers()) {
    throw StationError(ExitCode::Usage,
                       "passwords as htpasswd writes them need --tls; those of htdigest do not");
  }
}

Authenticator::Verdict Authenticator::check(const Request& request) {
  const std::lock_guard lock(mutex_);
  const std::string guesser = guesserOf(request.address);
  const bool mayGuess = !guesses_.isReached(guesser);
  const Answer answer = judge(request, mayGuess);
  // Guesses of others behind the same address do not disturb a client that knows the password.
  if (answer.result != Result::NoPassword && !isProven(answer.proof) && !mayGuess) {
    Client::refuse(request.socket, ClientEvent::Password, "too many wrong passwords");
    return {false, {}};
  }
  if (answer.result == Result::Admitted) {
    addProof(answer.proof);
  } else if (answer.result == Result::Wrong) {
    proofs_.erase(answer.proof);
    guesses_.add(guesser);
    Client::refuse(request.socket, ClientEvent::Password,
                   guesses_.isReached(guesser) ? "wrong user or password, the last guess for 10 s"
                                               : "wrong user or password");
  }
  return {answer.result == Result::Admitted,
          challenges(request.address, answer.result == Result::Stale)};
}

Authenticator::Answer Authenticator::judge(const Request& request, bool mayGuess) const {
  if (request.authorization == nullptr) {
    return {Result::NoPassword, ""};
  }
  if (const char* const parameters = parametersOf(request.authorization, "Digest")) {
    return judgeDigest(request, parameters);
  }
  const char* const base64 = isEncrypted_ ? parametersOf(request.authorization, "Basic") : nullptr;
  if (base64 == nullptr) {
    return {Result::NoPassword, ""};
  }
  // The slow hash is computed neither for a proof nor for a guess that is refused anyway.
  const std::string proof = md5(base64 + request.address);
  const bool isRight = isProven(proof) || (mayGuess && credentials_.matchBasic(base64));
  return {isRight ? Result::Admitted : Result::Wrong, proof};
}

Authenticator::Answer Authenticator::judgeDigest(const Request& request,
                                                 const char* parameters) const {
  const std::unique_ptr<GHashTable, FreeParameters> table(soup_header_parse_param_list(parameters));
  const auto value = [&table](const char* name) -> std::string {
    const auto* const text = static_cast<const char*>(g_hash_table_lookup(table.get(), name));
    return text != nullptr ? text : "";
  };
  const std::string nonce = value("nonce");
  const std::string uri = value("uri");
  const std::string qop = value("qop");
  const std::string numbers =
      qop.empty() ? nonce : nonce + ":" + value("nc") + ":" + value("cnonce") + ":" + qop;
  const std::string proof = md5(nonce + request.address);
  if ((request.target != nullptr && uri != request.target) ||
      !credentials_.matchDigest(value("username"),
                                numbers + ":" + md5(std::string(request.method) + ":" + uri),
                                value("response"))) {
    return {Result::Wrong, proof};
  }
  const bool isValid = isProven(proof) || isOwnNonce(nonce, request.address);
  return {isValid ? Result::Admitted : Result::Stale, proof};
}

bool Authenticator::isProven(const std::string& proof) const {
  const auto found = proofs_.find(proof);
  return found != proofs_.end() && nowSeconds() - found->second <= kNonceSeconds;
}

void Authenticator::addProof(const std::string& proof) {
  proofs_[proof] = nowSeconds();
  if (proofs_.size() > kMaxProofs) {
    const auto leastRecent = std::min_element(
        proofs_.begin(), proofs_.end(),
        [](const auto& one, const auto& other) { return one.second < other.second; });
    proofs_.erase(leastRecent);
  }
}

// A nonce is "seconds-number-code": nothing is kept for a client that only asks for one.
bool Authenticator::isOwnNonce(const std::string& nonce, const std::string& address) const {
  const gint64 age = nowSeconds() - g_ascii_strtoll(nonce.c_str(), nullptr, 10);
  return age <= kNonceSeconds && nonce == makeNonce(nonce.substr(0, nonce.rfind('-')), address);
}

std::string Authenticator::makeNonce(const std::string& begin, const std::string& address) const {
  const std::string text = begin + " " + address;
  g_autofree gchar* code = g_compute_hmac_for_data(
      G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(secret_.data()), secret_.size(),
      reinterpret_cast<const guchar*>(text.data()), text.size());
  return begin + "-" + code;
}

std::vector<std::string> Authenticator::challenges(const std::string& address, bool isStale) {
  const std::string realm = "realm=\"" + std::string(Credentials::kRealm) + "\"";
  std::vector<std::string> result;
  // A client takes the first that it knows, and any user can use basic authentication.
  if (!isEncrypted_ || !credentials_.hasBasicUsers()) {
    const std::string begin = std::to_string(nowSeconds()) + "-" + std::to_string(++challenges_);
    result.push_back(
        "Digest " + realm + ", nonce=\"" + makeNonce(begin, address) + "\", algorithm=MD5" +
        // Players compute without it.
        (protocol_ == Protocol::Http ? ", qop=\"auth\"" : "") + (isStale ? ", stale=true" : ""));
  }
  if (isEncrypted_) {
    result.push_back("Basic " + realm);
  }
  return result;
}

}  // namespace station
