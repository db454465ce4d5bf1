#pragma once

#include <optional>
#include <string>
#include <vector>

#include <libsoup/soup.h>

#include "serve/Authenticator.h"
#include "serve/ServeOptions.h"

namespace station {

// Refuses requests before they are answered: for another host, with another method than GET and
// HEAD, without the password.
//
// Threads: the main context's.
class RequestGuard {
 public:
  explicit RequestGuard(const ServeOptions& options);

  // Call it when the request's header has come. Sets the message's status if it is refused.
  void check(SoupServerMessage* message);

 private:
  bool isForThisHost(SoupServerMessage* message) const;
  void authenticate(SoupServerMessage* message);

  const std::vector<std::string> hosts_;
  std::optional<Authenticator> authenticator_;
};

}  // namespace station
