#include "rtsp/RequestHead.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <glib.h>

namespace station {
namespace {

bool isSpace(char character) {
  return character == ' ' || character == '\t';
}

bool isControl(char character) {
  const auto code = static_cast<unsigned char>(character);
  return (code < 0x20 && code != '\t') || code == 0x7f;
}

bool equalsIgnoringCase(std::string_view text, std::string_view other) {
  return text.size() == other.size() &&
         g_ascii_strncasecmp(text.data(), other.data(), text.size()) == 0;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

// Of a header, up to the colon; one space before that is allowed.
std::string_view nameOf(std::string_view line) {
  std::string_view name = line.substr(0, line.find(':'));
  if (!name.empty() && name.back() == ' ') {
    name.remove_suffix(1);
  }
  return name;
}

// Whether it says where in time to play. gst-rtsp-server, 1.28.8 as well, sends no response to a
// Range of clock time, and fails an assertion of GLib for a Range with Seek-Style.
bool isPlace(std::string_view line) {
  return equalsIgnoringCase(nameOf(line), "Range") ||
         equalsIgnoringCase(nameOf(line), "Seek-Style");
}

}  // namespace

RequestHead::RequestHead(std::vector<std::string_view> allLines) : lines(std::move(allLines)) {
  readFirstLine(lines.front());
  for (auto line = lines.begin() + 1; line != lines.end(); ++line) {
    readHeader(*line);
  }
  isWellFormed = isWellFormed && std::none_of(lines.begin(), lines.end(), [](auto line) {
                   return std::any_of(line.begin(), line.end(), isControl);
                 });
  lines.erase(std::remove_if(lines.begin() + 1, lines.end(), isPlace), lines.end());
}

// "OPTIONS * RTSP/1.0". Responses begin with the protocol.
void RequestHead::readFirstLine(std::string_view line) {
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  isWellFormed = first != 0 && first != last && line.find(' ', first + 1) == last &&
                 last + 1 < line.size() && line.find('\t') == std::string_view::npos;
  if (isWellFormed) {
    method = line.substr(0, first);
    isHttp = equalsIgnoringCase(line.substr(last + 1).substr(0, 5), "HTTP/");
    isWellFormed = method.substr(0, 4) != "RTSP" && method.substr(0, 4) != "HTTP";
  }
}

// Continued lines begin with a space, and are refused.
void RequestHead::readHeader(std::string_view line) {
  const std::size_t colon = line.find(':');
  const std::string_view name = nameOf(line);
  if (colon == std::string_view::npos || name.empty() ||
      std::any_of(name.begin(), name.end(), isSpace)) {
    isWellFormed = false;
    return;
  }
  const std::string_view value = trim(line.substr(colon + 1));
  if (equalsIgnoringCase(name, "CSeq")) {
    cseq = value;
  } else if (equalsIgnoringCase(name, "Session")) {
    sessions.push_back(value);
  } else if (equalsIgnoringCase(name, "Content-Length")) {
    lengths.push_back(value);
  } else if (equalsIgnoringCase(name, "x-sessioncookie")) {
    cookie = value;
  }
}

}  // namespace station
