// The machine's particulars that every telemetry snapshot carries.
#pragma once

#include <cstdint>
#include <string>

namespace le::tel {

struct Particulars {
  std::string os;           // the platform served: "linux"
  std::string osVersion;    // VERSION_ID of /etc/os-release, else uname's release
  std::string deviceModel;  // DMI product name, empty where the machine has none
  std::string arch;         // uname's machine
  unsigned cpuCores = 0;
  std::uint64_t ramBytes = 0;  // 0 if unknown
};

// Reads them from the system. Never fails: what can't be read stays empty
// or 0, because a snapshot with a gap is worth more than none.
Particulars readParticulars();

}  // namespace le::tel
