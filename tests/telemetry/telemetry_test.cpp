// The telemetry store through its C interface: snapshot and batch bytes,
// the queue and its bound, flush results, and use from many threads.
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "le/le_tel.h"
#include "telemetry/telemetry.h"

namespace {

// The test's own JSON string escaping, written from the rules rather than
// taken from the library, for the particulars of whatever machine runs it.
std::string esc(const std::string& s) {
  std::string o;
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      o += '\\';
      o += static_cast<char>(c);
    } else if (c == '\t') {
      o += "\\t";
    } else if (c == '\n') {
      o += "\\n";
    } else if (c < 32) {
      static const char* hex = "0123456789abcdef";
      o += "\\u00";
      o += hex[c >> 4];
      o += hex[c & 15];
    } else {
      o += static_cast<char>(c);
    }
  }
  return o;
}

std::string readAll(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// This machine's particulars, read independently of the library.
struct Machine {
  std::string osVersion, deviceModel, arch;
  unsigned long long ram = 0;
};

Machine machine() {
  Machine m;
  utsname u{};
  const bool haveUname = uname(&u) == 0;
  if (haveUname) m.arch = u.machine;
  const std::string rel = readAll("/etc/os-release");
  const auto at = rel.find("VERSION_ID=");
  if (at != std::string::npos && (at == 0 || rel[at - 1] == '\n')) {
    const auto start = at + 11;
    m.osVersion = rel.substr(start, rel.find('\n', start) - start);
    if (m.osVersion.size() >= 2 && m.osVersion.front() == '"' && m.osVersion.back() == '"')
      m.osVersion = m.osVersion.substr(1, m.osVersion.size() - 2);
  }
  if (m.osVersion.empty() && haveUname) m.osVersion = u.release;
  m.deviceModel = readAll("/sys/class/dmi/id/product_name");
  while (!m.deviceModel.empty() && std::isspace(static_cast<unsigned char>(m.deviceModel.back())))
    m.deviceModel.pop_back();
  struct sysinfo si {};
  if (sysinfo(&si) == 0) m.ram = static_cast<unsigned long long>(si.totalram) * si.mem_unit;
  return m;
}

// What follows "ts" in a snapshot, up to the host-recorded numbers.
std::string head(const std::string& sdk, const std::string* deviceModel = nullptr) {
  static const Machine m = machine();
  return ",\"os\":\"linux\",\"os_version\":\"" + esc(m.osVersion) + "\",\"device_model\":\"" +
         esc(deviceModel ? *deviceModel : m.deviceModel) + "\",\"arch\":\"" + esc(m.arch) +
         "\",\"cpu_cores\":" + std::to_string(std::thread::hardware_concurrency()) +
         ",\"ram_bytes\":" + std::to_string(m.ram) + ",\"sdk_version\":\"" + esc(sdk) + "\"";
}

// Checks that a snapshot starts with a plausible "ts" and returns the rest.
std::string afterTs(const std::string& snap) {
  const std::string open = "{\"ts\":";
  EXPECT_EQ(snap.compare(0, open.size(), open), 0) << snap;
  std::size_t end = open.size();
  while (end < snap.size() && std::isdigit(static_cast<unsigned char>(snap[end]))) ++end;
  EXPECT_GT(end, open.size()) << snap;
  const long long ts = std::atoll(snap.substr(open.size(), end - open.size()).c_str());
  const long long now = static_cast<long long>(std::time(nullptr));
  EXPECT_LE(ts, now);
  EXPECT_GE(ts, now - 600);
  return snap.substr(end);
}

std::string snapshot() { return le::tel::snapshot_json(); }

// The snapshots of a batch body, after checking its frame.
std::vector<std::string> batchOf(const std::string& body, const std::string& tokenJson) {
  const std::string open = "{\"token\":\"" + tokenJson + "\",\"batch\":[";
  EXPECT_EQ(body.compare(0, open.size(), open), 0) << body.substr(0, 200);
  EXPECT_EQ(body.substr(body.size() - 2), "]}");
  std::vector<std::string> out;
  const std::string inner = body.substr(open.size(), body.size() - open.size() - 2);
  const std::string sep = "},{\"ts\":";
  std::size_t from = 0;
  for (std::size_t at; (at = inner.find(sep, from)) != std::string::npos; from = at + 2)
    out.push_back(inner.substr(from, at + 1 - from));
  out.push_back(inner.substr(from));
  return out;
}

// A host transport that keeps what it was given and answers a set status.
struct FakeTransport {
  std::mutex m;
  std::vector<std::string> paths, bodies;
  std::atomic<int> status{200};
  void (*during)(FakeTransport&) = nullptr;  // runs inside the post

  static int post(void* user, const char* path, const char* body) {
    auto& t = *static_cast<FakeTransport*>(user);
    {
      std::lock_guard<std::mutex> lock(t.m);
      t.paths.emplace_back(path);
      t.bodies.emplace_back(body);
    }
    if (t.during) t.during(t);
    return t.status;
  }
  std::string lastBody() {
    std::lock_guard<std::mutex> lock(m);
    return bodies.empty() ? std::string() : bodies.back();
  }
  std::size_t calls() {
    std::lock_guard<std::mutex> lock(m);
    return bodies.size();
  }
};

std::string pendingQueued() {
  const std::string p = le_tel_pending_json();
  const auto comma = p.find(',');
  return p.substr(0, comma);
}

class Telemetry : public ::testing::Test {
 protected:
  void SetUp() override { le::tel::resetForTesting(); }
  void TearDown() override { le::tel::resetForTesting(); }
  void attach(const char* token = "tok", const char* sdk = "1.0") {
    le_tel_set_transport(token, &FakeTransport::post, &fake, sdk);
  }
  FakeTransport fake;
};

TEST_F(Telemetry, NumberText) {
  EXPECT_EQ(le::tel::num_to_json(24.0), "24");
  EXPECT_EQ(le::tel::num_to_json(24.5), "24.5");
  EXPECT_EQ(le::tel::num_to_json(0.1234567), "0.123457");
  EXPECT_EQ(le::tel::num_to_json(-3.0), "-3");
  EXPECT_EQ(le::tel::num_to_json(-0.0), "0");
  EXPECT_EQ(le::tel::num_to_json(1e-7), "1e-07");
  EXPECT_EQ(le::tel::num_to_json(1e18), "1000000000000000000");
  EXPECT_EQ(le::tel::num_to_json(-9223372036854775808.0), "-9223372036854775808");
  EXPECT_EQ(le::tel::num_to_json(9223372036854775808.0), "9.22337e+18");
  EXPECT_EQ(le::tel::num_to_json(1e300), "1e+300");
  EXPECT_EQ(le::tel::num_to_json(std::numeric_limits<double>::quiet_NaN()), "null");
  EXPECT_EQ(le::tel::num_to_json(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(le::tel::num_to_json(-std::numeric_limits<double>::infinity()), "null");

  le_tel_record("fps_ema", 24.0);
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"fps_ema\":24,\"extra\":{}}");
  le_tel_record("fps_ema", 24.5);
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"fps_ema\":24.5,\"extra\":{}}");
  le_tel_record("fps_ema", 0.1234567);
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"fps_ema\":0.123457,\"extra\":{}}");
}

TEST_F(Telemetry, EmptyStore) {
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"extra\":{}}");
  attach("tok", "2.3.4");
  EXPECT_EQ(afterTs(snapshot()), head("2.3.4") + ",\"extra\":{}}");
  le_tel_set_transport("tok", &FakeTransport::post, &fake, nullptr);
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"extra\":{}}");
}

TEST_F(Telemetry, FieldOrder) {
  le_tel_record("zeta", 2);
  le_tel_record_str("model_key", "m4b");
  le_tel_record("thermal_state", 1);
  le_tel_record_str("b", "t");
  le_tel_record("load_ms", 812.25);
  le_tel_record("session_s", 30);
  le_tel_record("frames_total", 750);
  le_tel_record("alpha", -1.5);
  le_tel_record("fps_ema", 25);
  le_tel_record_str("a", "s");
  EXPECT_EQ(afterTs(snapshot()),
            head("") +
                ",\"fps_ema\":25,\"frames_total\":750,\"session_s\":30,\"load_ms\":812.25,"
                "\"thermal_state\":1,\"model_key\":\"m4b\","
                "\"extra\":{\"alpha\":-1.5,\"zeta\":2,\"a\":\"s\",\"b\":\"t\"}}");
}

TEST_F(Telemetry, ExtraKeepsBothMapsAndByteOrder) {
  le_tel_record("x", 1);
  le_tel_record_str("y", "a\"b");
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"extra\":{\"x\":1,\"y\":\"a\\\"b\"}}");
  le::tel::resetForTesting();
  // Keys sort by unsigned bytes: upper case before lower, UTF-8 last.
  le_tel_record("\xc3\xa9", 3);
  le_tel_record("b", 2);
  le_tel_record("B", 1);
  // A number under a text's field name is not that field, so it stays.
  le_tel_record("model_key", 7);
  EXPECT_EQ(afterTs(snapshot()),
            head("") + ",\"extra\":{\"B\":1,\"b\":2,\"model_key\":7,\"\xc3\xa9\":3}}");
}

TEST_F(Telemetry, Escaping) {
  const char* nasty = "q\"b\\t\tn\nr\ru\x01x\x1f" "d\x7f" "h\xc3\xa9";
  const std::string want = "q\\\"b\\\\t\\tn\\nr\\u000du\\u0001x\\u001f" "d\x7f" "h\xc3\xa9";
  le_tel_record_str(nasty, nasty);
  le_tel_record(nasty, 1);
  le_tel_record_str("model_key", nasty);
  attach(nasty, nasty);
  EXPECT_EQ(afterTs(snapshot()), head(nasty) + ",\"model_key\":\"" + want + "\",\"extra\":{\"" +
                                     want + "\":1,\"" + want + "\":\"" + want + "\"}}");
  EXPECT_EQ(le_tel_flush(), 0);
  const auto batch = batchOf(fake.lastBody(), want);
  ASSERT_EQ(batch.size(), 1u);
}

TEST_F(Telemetry, DeviceModelOverride) {
  const std::string z = "Z\tmodel";
  le_tel_record_str("device_model", z.c_str());
  EXPECT_EQ(afterTs(snapshot()), head("", &z) + ",\"extra\":{}}");
}

TEST_F(Telemetry, RecordingAgainReplaces) {
  le_tel_record("k", 1);
  le_tel_record("k", 2);
  le_tel_record_str("s", "one");
  le_tel_record_str("s", "two");
  le_tel_record_str("model_key", "a");
  le_tel_record_str("model_key", "b");
  EXPECT_EQ(afterTs(snapshot()),
            head("") + ",\"model_key\":\"b\",\"extra\":{\"k\":2,\"s\":\"two\"}}");
}

TEST_F(Telemetry, NullAndEmptyKeysIgnored) {
  le_tel_record(nullptr, 1);
  le_tel_record("", 1);
  le_tel_record_str(nullptr, "a");
  le_tel_record_str("", "a");
  le_tel_record_str("k", nullptr);
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"extra\":{}}");
  le_tel_record_str("k", "");
  EXPECT_EQ(afterTs(snapshot()), head("") + ",\"extra\":{\"k\":\"\"}}");
}

TEST_F(Telemetry, FlushWithoutTransportQueuesNothing) {
  EXPECT_EQ(le_tel_flush(), -1);
  attach("");
  EXPECT_EQ(le_tel_flush(), -1);
  attach(nullptr);
  EXPECT_EQ(le_tel_flush(), -1);
  attach("tok");
  le_tel_set_transport("tok", nullptr, &fake, "1.0");
  EXPECT_EQ(le_tel_flush(), -1);
  EXPECT_EQ(fake.calls(), 0u);
  EXPECT_EQ(pendingQueued(), "{\"queued\":0");
}

TEST_F(Telemetry, FlushDelivers) {
  attach("tok", "9.9");
  le_tel_record("fps_ema", 25);
  EXPECT_EQ(le_tel_flush(), 0);
  ASSERT_EQ(fake.calls(), 1u);
  EXPECT_EQ(fake.paths[0], "/v1/telemetry/ingest");
  const auto batch = batchOf(fake.bodies[0], "tok");
  ASSERT_EQ(batch.size(), 1u);
  EXPECT_EQ(afterTs(batch[0]), head("9.9") + ",\"fps_ema\":25,\"extra\":{}}");
  EXPECT_EQ(pendingQueued(), "{\"queued\":0");
  EXPECT_EQ(le_tel_flush(), 0);
  EXPECT_EQ(batchOf(fake.lastBody(), "tok").size(), 1u);
}

TEST_F(Telemetry, FailedFlushKeepsQueue) {
  attach();
  fake.status = 500;
  le_tel_record("n", 1);
  EXPECT_EQ(le_tel_flush(), -3);
  EXPECT_EQ(pendingQueued(), "{\"queued\":1");
  fake.status = 204;  // any status but 200 is a failure
  le_tel_record("n", 2);
  EXPECT_EQ(le_tel_flush(), -3);
  fake.status = -7;  // the transport's own failure passes through
  le_tel_record("n", 3);
  EXPECT_EQ(le_tel_flush(), -7);
  EXPECT_EQ(pendingQueued(), "{\"queued\":3");
  fake.status = 200;
  le_tel_record("n", 4);
  EXPECT_EQ(le_tel_flush(), 0);
  const auto batch = batchOf(fake.lastBody(), "tok");
  ASSERT_EQ(batch.size(), 4u);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(afterTs(batch[i]),
              head("1.0") + ",\"extra\":{\"n\":" + std::to_string(i + 1) + "}}");
  EXPECT_EQ(pendingQueued(), "{\"queued\":0");
}

TEST_F(Telemetry, QueueKeepsLatest256) {
  attach();
  fake.status = 503;
  for (int i = 0; i < 300; ++i) {
    le_tel_record("i", i);
    ASSERT_EQ(le_tel_flush(), -3);
  }
  EXPECT_EQ(pendingQueued(), "{\"queued\":256");
  const auto batch = batchOf(fake.lastBody(), "tok");
  ASSERT_EQ(batch.size(), 256u);
  for (int k = 0; k < 256; ++k)
    EXPECT_EQ(afterTs(batch[k]),
              head("1.0") + ",\"extra\":{\"i\":" + std::to_string(300 - 256 + k) + "}}");
}

TEST_F(Telemetry, TransportReplacedKeepsQueue) {
  attach("old", "1");
  fake.status = 500;
  EXPECT_EQ(le_tel_flush(), -3);
  FakeTransport other;
  le_tel_set_transport("new", &FakeTransport::post, &other, "2");
  EXPECT_EQ(le_tel_flush(), 0);
  EXPECT_EQ(fake.calls(), 1u);
  ASSERT_EQ(other.calls(), 1u);
  const auto batch = batchOf(other.lastBody(), "new");
  ASSERT_EQ(batch.size(), 2u);
  // A snapshot keeps the version it was taken with.
  EXPECT_EQ(afterTs(batch[0]), head("1") + ",\"extra\":{}}");
  EXPECT_EQ(afterTs(batch[1]), head("2") + ",\"extra\":{}}");
}

TEST_F(Telemetry, PendingReportDoesNotQueue) {
  le_tel_record("fps_ema", 24);
  const std::string want = head("") + ",\"fps_ema\":24,\"extra\":{}}}";
  const char* first = le_tel_pending_json();
  const std::string open = "{\"queued\":0,\"snapshot\":";
  ASSERT_EQ(std::string(first).compare(0, open.size(), open), 0) << first;
  EXPECT_EQ(afterTs(std::string(first).substr(open.size())), want);
  // Another thread's report is its own and leaves this one's text alone.
  const std::string mine = first;
  std::thread([] {
    le_tel_record("late", 1);
    (void)le_tel_pending_json();
  }).join();
  EXPECT_EQ(std::string(first), mine);
  EXPECT_EQ(pendingQueued(), "{\"queued\":0");
  attach();
  EXPECT_EQ(le_tel_flush(), 0);
  EXPECT_EQ(batchOf(fake.lastBody(), "tok").size(), 1u);
}

TEST_F(Telemetry, ConcurrentRecordsAndFlushes) {
  attach();
  constexpr int kThreads = 4, kKeys = 300;
  std::atomic<bool> done{false};
  std::atomic<int> flushes{0};
  std::thread flusher([&] {
    while (!done || flushes < 50) {
      fake.status = (flushes % 3 == 0) ? 500 : 200;
      const int want = fake.status == 200 ? 0 : -3;
      EXPECT_EQ(le_tel_flush(), want);
      ++flushes;
      (void)le_tel_pending_json();
    }
  });
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t)
    writers.emplace_back([t] {
      for (int k = 0; k < kKeys; ++k) {
        const std::string key = "t" + std::to_string(t) + "_" + std::to_string(1000 + k);
        le_tel_record(key.c_str(), k);
        le_tel_record_str(("s" + key).c_str(), key.c_str());
        le_tel_record("fps_ema", t);
      }
    });
  for (auto& w : writers) w.join();
  done = true;
  flusher.join();
  EXPECT_GT(flushes.load(), 0);

  for (const auto& body : fake.bodies) {
    const auto batch = batchOf(body, "tok");
    EXPECT_GE(batch.size(), 1u);
    EXPECT_LE(batch.size(), 256u);
    for (const auto& snap : batch) {
      EXPECT_EQ(afterTs(snap).compare(0, head("1.0").size(), head("1.0")), 0);
      EXPECT_EQ(snap.substr(snap.size() - 2), "}}");
    }
  }
  // The final snapshot holds every key with its last value.
  const std::string fps = afterTs(snapshot()).substr(head("1.0").size());
  std::string nums, strs;
  for (int t = 0; t < kThreads; ++t)
    for (int k = 0; k < kKeys; ++k) {
      const std::string key = "t" + std::to_string(t) + "_" + std::to_string(1000 + k);
      nums += ",\"" + key + "\":" + std::to_string(k);
      strs += ",\"s" + key + "\":\"" + key + "\"";
    }
  const std::string extra = ",\"extra\":{" + nums.substr(1) + strs + "}}";
  ASSERT_EQ(fps.compare(0, 11, ",\"fps_ema\":"), 0);
  const int lastFps = fps[11] - '0';
  EXPECT_TRUE(lastFps >= 0 && lastFps < kThreads);
  EXPECT_EQ(fps.substr(12), extra);
  fake.status = 200;
  EXPECT_EQ(le_tel_flush(), 0);
  EXPECT_EQ(pendingQueued(), "{\"queued\":0");
}

TEST_F(Telemetry, PostRunsOutsideTheLock) {
  attach();
  // Inside the post, another thread records and flushes into a failing
  // answer; that would deadlock if the post held the lock.
  fake.during = [](FakeTransport& t) {
    if (t.calls() > 1) return;  // only the outer post
    t.status = 500;
    std::thread([] {
      le_tel_record("during", 5);
      EXPECT_EQ(le_tel_flush(), -3);
    }).join();
    EXPECT_EQ(pendingQueued(), "{\"queued\":2");
    t.status = 200;
  };
  EXPECT_EQ(le_tel_flush(), 0);
  ASSERT_EQ(fake.calls(), 2u);
  EXPECT_EQ(batchOf(fake.bodies[0], "tok").size(), 1u);
  EXPECT_EQ(batchOf(fake.bodies[1], "tok").size(), 2u);
  // The 200 empties the queue whole, the snapshot queued meanwhile included.
  EXPECT_EQ(pendingQueued(), "{\"queued\":0");
  EXPECT_EQ(afterTs(snapshot()), head("1.0") + ",\"extra\":{\"during\":5}}");
}

}  // namespace
