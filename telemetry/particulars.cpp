#include "telemetry/particulars.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <fstream>
#include <iterator>
#include <string_view>
#include <thread>

namespace le::tel {
namespace {

// VERSION_ID of os-release, with the double quotes that most distributions
// put around it taken off; empty if the file or the line is missing.
std::string osReleaseVersion() {
  std::ifstream in("/etc/os-release");
  constexpr std::string_view kKey = "VERSION_ID=";
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, kKey.size(), kKey) != 0) continue;
    std::string v = line.substr(kKey.size());
    if (v.size() >= 2 && v.front() == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
    return v;
  }
  return {};
}

// The board's model name as the firmware reports it. The file ends in a
// line feed, and some firmware pads the name with spaces.
std::string dmiProductName() {
  std::ifstream in("/sys/class/dmi/id/product_name", std::ios::binary);
  std::string v((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto end = v.find_last_not_of(" \t\r\n");
  v.erase(end == std::string::npos ? 0 : end + 1);
  return v;
}

}  // namespace

Particulars readParticulars() {
  Particulars p;
  p.os = "linux";
  struct utsname u {};
  const bool haveUname = uname(&u) == 0;
  if (haveUname) p.arch = u.machine;
  p.osVersion = osReleaseVersion();
  if (p.osVersion.empty() && haveUname) p.osVersion = u.release;
  p.deviceModel = dmiProductName();
  p.cpuCores = std::thread::hardware_concurrency();
  struct sysinfo si {};
  if (sysinfo(&si) == 0) p.ramBytes = static_cast<std::uint64_t>(si.totalram) * si.mem_unit;
  return p;
}

}  // namespace le::tel
