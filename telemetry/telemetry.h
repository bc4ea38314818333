// Internal side of the telemetry store behind le/le_tel.h: the process-wide
// store of host-recorded numbers and texts, and the snapshots built from it.
#pragma once

#include <string>

namespace le::tel {

// A fresh snapshot (one line of JSON, not queued), built under the store's
// lock, for code inside the library.
std::string snapshot_json();

// Number text of the snapshots: the integer's decimal form when the double
// holds an integer that fits a 64-bit signed integer, else "%.6g". NaN and
// the infinities have no JSON form and are written as null.
std::string num_to_json(double v);

// Test hook, not exported: forgets every recorded value, the queue and the
// transport, so that the cases of one test program don't see each other's
// store. The machine's particulars are kept.
void resetForTesting();

}  // namespace le::tel
