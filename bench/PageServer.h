#pragma once

#include <functional>
#include <string>

// Serves a camera of 1280 x 720 at 30 frames per second over HTTP, whose pictures carry their time
// (StampingCamera.h), while `client` runs on a thread of its own with the URL. Returns the client's
// result. Apart from the client, as the tests' headers take the name of a namespace of the server.
int servePage(const std::function<int(const std::string& url)>& client);
