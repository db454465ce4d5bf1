#pragma once

#include <string_view>
#include <vector>

namespace station {

// The head of a request that an RTSP client sends: its lines, without the empty one and without
// those that ask for another time than now, and what the filter has to know of them. Views of the
// text that it was made of.
struct RequestHead {
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
