#include "doctor/Machine.h"

#include <fstream>
#include <sstream>

#include <glib.h>
#include <simulated_board/Faults.h>
#include <sys/utsname.h>

namespace station {
namespace {

std::string firstLine(const std::string& file) {
  std::string line;
  std::ifstream stream(simulated_board::faultText("board", "files") + file);
  std::getline(stream, line);
  return line.substr(0, line.find('\0'));  // the device tree's strings end with it
}

// Such as "# R35 (release), REVISION: 4.1, ..." in the board maker's file.
std::string releaseOf() {
  const std::string makers = firstLine("/etc/nv_tegra_release");
  const std::size_t begin = makers.find_first_not_of("# ");
  if (begin != std::string::npos) {
    return makers.substr(begin);
  }
  g_autofree gchar* name = g_get_os_info(G_OS_INFO_KEY_PRETTY_NAME);
  return name != nullptr ? name : "";
}

std::optional<std::uint64_t> memoryRow(const std::string& key) {
  std::ifstream rows("/proc/meminfo");
  for (std::string row; std::getline(rows, row);) {
    std::istringstream words(row);
    std::string name;
    std::uint64_t kilobytes = 0;
    if (words >> name >> kilobytes && name == key + ":") {
      return kilobytes;
    }
  }
  return std::nullopt;
}

}  // namespace

Machine describeMachine() {
  Machine machine;
  machine.model = firstLine("/proc/device-tree/model");
  machine.release = releaseOf();
  utsname kernel = {};
  if (uname(&kernel) == 0) {
    machine.kernel = kernel.release;
  }
  machine.contiguousKb = memoryRow("CmaTotal");
  machine.contiguousFreeKb = memoryRow("CmaFree");
  if (const unsigned int simulated = simulated_board::faultNumber("board", "cma")) {
    machine.contiguousKb = machine.contiguousFreeKb = simulated;
  }
  return machine;
}

}  // namespace station
