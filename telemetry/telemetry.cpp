// The telemetry store: host-recorded numbers and texts, snapshots of them
// with the machine's particulars, and a bounded queue of snapshots that the
// host's transport has not yet taken.
#include "telemetry/telemetry.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string_view>

#include "le/le_tel.h"
#include "telemetry/particulars.h"

namespace le::tel {
namespace {

constexpr const char* kIngestPath = "/v1/telemetry/ingest";
constexpr std::size_t kQueueMax = 256;

// Numbers that have their own field in a snapshot, in the order written.
constexpr std::string_view kKnownNums[] = {"fps_ema", "frames_total", "session_s", "load_ms",
                                           "thermal_state"};

struct TelState {
  std::mutex mutex;
  bool sysDone = false;
  Particulars sys;
  // std::less<> lets lookups by string_view go without a temporary string;
  // std::string orders by unsigned bytes, the order the snapshot promises.
  std::map<std::string, double, std::less<>> nums;
  std::map<std::string, std::string, std::less<>> strs;
  std::deque<std::string> queue;
  // The host's transport.
  std::string token;
  le_tel_post_fn post = nullptr;
  void* user = nullptr;
  std::string sdkVersion;
};

// Never destroyed: a host thread may still record or flush while the
// process runs its static destructors.
TelState& state() {
  static TelState* s = new TelState;
  return *s;
}

void appendEscaped(std::string& out, std::string_view text) {
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      default:
        if (c < 32) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
          out += buf;
        } else {
          out += ch;  // bytes above 127 too: UTF-8 passes through whole
        }
    }
  }
}

// ,"name":"escaped value"
void appendStrField(std::string& out, std::string_view name, std::string_view value) {
  out += ",\"";
  out += name;
  out += "\":\"";
  appendEscaped(out, value);
  out += '"';
}

bool isKnownNum(std::string_view key) {
  for (const std::string_view k : kKnownNums)
    if (k == key) return true;
  return false;
}

// The lock must be held.
std::string buildSnapshot(TelState& s) {
  if (!s.sysDone) {
    s.sys = readParticulars();
    s.sysDone = true;
  }
  std::string out = "{\"ts\":" + std::to_string(static_cast<long long>(std::time(nullptr)));
  appendStrField(out, "os", s.sys.os);
  appendStrField(out, "os_version", s.sys.osVersion);
  const auto dm = s.strs.find(std::string_view("device_model"));
  appendStrField(out, "device_model", dm != s.strs.end() ? dm->second : s.sys.deviceModel);
  appendStrField(out, "arch", s.sys.arch);
  out += ",\"cpu_cores\":" + std::to_string(s.sys.cpuCores);
  out += ",\"ram_bytes\":" + std::to_string(s.sys.ramBytes);
  appendStrField(out, "sdk_version", s.sdkVersion);
  for (const std::string_view k : kKnownNums) {
    const auto it = s.nums.find(k);
    if (it == s.nums.end()) continue;
    out += ",\"";
    out += k;
    out += "\":" + num_to_json(it->second);
  }
  const auto mk = s.strs.find(std::string_view("model_key"));
  if (mk != s.strs.end()) appendStrField(out, "model_key", mk->second);

  // Each map leaves out only what it already wrote above: a number that a
  // host happens to call "model_key" still shows, under extra.
  out += ",\"extra\":{";
  bool first = true;
  const auto openKey = [&](const std::string& key) {
    if (!first) out += ',';
    first = false;
    out += '"';
    appendEscaped(out, key);
    out += "\":";
  };
  for (const auto& [key, value] : s.nums) {
    if (isKnownNum(key)) continue;
    openKey(key);
    out += num_to_json(value);
  }
  for (const auto& [key, value] : s.strs) {
    if (key == "model_key" || key == "device_model") continue;
    openKey(key);
    out += '"';
    appendEscaped(out, value);
    out += '"';
  }
  out += "}}";
  return out;
}

// Queues a snapshot and posts the whole queue. 0 delivered, -1 no
// transport or token, -3 a status other than 200, or the transport's own
// negative result.
int flush() {
  TelState& s = state();
  le_tel_post_fn post = nullptr;
  void* user = nullptr;
  std::string body;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.post == nullptr || s.token.empty()) return -1;
    post = s.post;
    user = s.user;
    s.queue.push_back(buildSnapshot(s));
    while (s.queue.size() > kQueueMax) s.queue.pop_front();
    body = "{\"token\":\"";
    appendEscaped(body, s.token);
    body += "\",\"batch\":[";
    for (std::size_t i = 0; i < s.queue.size(); ++i) {
      if (i > 0) body += ',';
      body += s.queue[i];
    }
    body += "]}";
  }
  // Outside the lock: the network may take seconds, and the host may record
  // (or flush) from any thread meanwhile.
  const int status = post(user, kIngestPath, body.c_str());
  if (status < 0) return status;
  if (status != 200) return -3;
  std::lock_guard<std::mutex> lock(s.mutex);
  // Whole, with whatever another thread queued during the post: that
  // snapshot is newer than the ones just delivered and the next flush
  // brings a fresh one anyway.
  s.queue.clear();
  return 0;
}

std::string pendingReport() {
  TelState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return "{\"queued\":" + std::to_string(s.queue.size()) + ",\"snapshot\":" + buildSnapshot(s) +
         "}";
}

}  // namespace

std::string num_to_json(double v) {
  // JSON has no NaN or infinity; null keeps the snapshot parseable.
  if (!std::isfinite(v)) return "null";
  // Both bounds are exact doubles (±2^63); inside them the conversion to
  // int64 is defined, outside it would be undefined behaviour.
  if (v >= -9223372036854775808.0 && v < 9223372036854775808.0) {
    const auto i = static_cast<std::int64_t>(v);
    if (static_cast<double>(i) == v) return std::to_string(i);
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

std::string snapshot_json() {
  TelState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return buildSnapshot(s);
}

void resetForTesting() {
  TelState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.nums.clear();
  s.strs.clear();
  s.queue.clear();
  s.token.clear();
  s.post = nullptr;
  s.user = nullptr;
  s.sdkVersion.clear();
}

}  // namespace le::tel

// Nothing may leave these functions by exception; each degrades to doing
// nothing, or to a failure value, instead.

LE_API void le_tel_set_transport(const char* token, le_tel_post_fn post, void* user,
                                 const char* sdk_version) {
  try {
    // The copies are made before the lock, so that a failed allocation
    // leaves the old transport whole.
    std::string tok = token != nullptr ? token : "";
    std::string sdk = sdk_version != nullptr ? sdk_version : "";
    auto& s = le::tel::state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.token.swap(tok);
    s.post = post;
    s.user = user;
    s.sdkVersion.swap(sdk);
  } catch (...) {
  }
}

LE_API void le_tel_record(const char* key, double value) {
  if (key == nullptr || *key == '\0') return;
  try {
    auto& s = le::tel::state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.nums.insert_or_assign(std::string(key), value);
  } catch (...) {
  }
}

LE_API void le_tel_record_str(const char* key, const char* value) {
  if (key == nullptr || *key == '\0' || value == nullptr) return;
  try {
    auto& s = le::tel::state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.strs.insert_or_assign(std::string(key), std::string(value));
  } catch (...) {
  }
}

LE_API int le_tel_flush(void) {
  try {
    return le::tel::flush();
  } catch (...) {
    // Out of memory while building the batch (or a transport that threw):
    // -4 is none of the documented results, and the queue is kept.
    return -4;
  }
}

LE_API const char* le_tel_pending_json(void) {
  try {
    thread_local std::string text;
    text = le::tel::pendingReport();
    return text.c_str();
  } catch (...) {
    return "";
  }
}
