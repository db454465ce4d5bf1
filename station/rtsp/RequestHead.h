#pragma once

#include <string_view>
#include <vector>

namespace station {

// The head of an RTSP client's request: its lines, without the empty one and without those that ask
// for another time than now, and the values that the filter checks. Views of the request's text.
struct RequestHead {
  // `allLines`: the request line first, and the headers.
  explicit RequestHead(std::vector<std::string_view> allLines);

  std::vector<std::string_view> lines;
  bool isWellFormed = true;
  bool isHttp = false;
  std::string_view method, cseq, cookie;
  std::vector<std::string_view> sessions, lengths;

 private:
  void readFirstLine(std::string_view line);
  void readHeader(std::string_view line);
};

}  // namespace station
