#include "audio/w2v_shared.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "audio/a2x_ort.h"
#include "bundle/file_util.h"
#include "compute/threads.h"
#include "director/diag.h"

namespace le {

std::mutex g_w2v_mtx;
std::mutex g_zeroemb_mtx;
Ort::Env* g_w2v_env = nullptr;
Ort::Session* g_w2v_session = nullptr;
std::string g_w2v_path;
Ort::Session* g_w2vwin_trunk = nullptr;
Ort::Session* g_w2vwin_head = nullptr;
bool g_w2vwin_tried = false;
std::string g_w2vwin_trunk_out;
std::atomic<int> g_w2vwin_LT{0};
std::vector<float> g_zeroemb;

namespace {

// Under g_w2v_mtx.
Ort::Env& sharedEnv() {
  if (!g_w2v_env) g_w2v_env = new Ort::Env(a2xOrtLogLevel(), "le_a2x_w2v");
  return *g_w2v_env;
}

int threadsOr(int threads) { return threads < 1 ? pool::threads() : threads; }

long long fileBytes(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

const char* envText(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

}  // namespace

Ort::Session* get_shared_w2v(const char* path, int threads) {
  std::lock_guard<std::mutex> lock(g_w2v_mtx);
  if (g_w2v_session) return g_w2v_session;
  Ort::Env& env = sharedEnv();
  Ort::SessionOptions options;
  a2xSessionOptions(options, threadsOr(threads), "w2v");
  const std::string p = path ? path : "";
  g_w2v_session = new Ort::Session(le_a2x_open_session(env, p.c_str(), options));
  g_w2v_path = p;
  return g_w2v_session;
}

bool w2v_win_sibling_pair(const std::string& w2vPath, std::string& trunk, std::string& head) {
  static const char* const kPairs[][2] = {
      {"audio_encoder_fp16_window_trunk.onnx", "audio_encoder_fp16_window_head.onnx"},
      {"w2v_trunk32.onnx", "w2v_head32.onnx"},
  };
  if (w2vPath.empty()) return false;
  const size_t slash = w2vPath.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : w2vPath.substr(0, slash);
  for (const auto& pair : kPairs) {
    const std::string t = dir + "/" + pair[0], h = dir + "/" + pair[1];
    if (canOpen(t) && canOpen(h)) {
      trunk = t;
      head = h;
      return true;
    }
  }
  return false;
}

bool get_shared_w2v_win(int threads, const char* w2vPath) {
  std::lock_guard<std::mutex> lock(g_w2v_mtx);
  if (g_w2vwin_trunk && g_w2vwin_head) return true;
  if (g_w2vwin_tried) return false;
  g_w2vwin_tried = true;

  std::string trunkPath = envText("LE_A2X_W2V_WIN_ONNX"), headPath = envText("LE_A2X_W2V_HEAD_ONNX");
  if (trunkPath.empty() || headPath.empty()) {
    const std::string beside = w2vPath ? w2vPath : "";
    if (!w2v_win_sibling_pair(beside, trunkPath, headPath)) {
      std::fprintf(stderr,
                   "[le_a2x] short-window audio frontend NOT DEPLOYED on this plane: neither "
                   "LE_A2X_W2V_WIN_ONNX/LE_A2X_W2V_HEAD_ONNX are set nor is the pair beside $W2V_ONNX (%s) as "
                   "audio_encoder_fp16_window_{trunk,head}.onnx (legacy w2v_trunk32.onnx/w2v_head32.onnx). Serving "
                   "the LEGACY 8s window — same reference quality, 2.8-3.9x the audio hop cost. Ship the pair beside "
                   "the encoder (tools/export_w2v_window).\n",
                   beside.c_str());
      return false;
    }
  }

  try {
    Ort::Env& env = sharedEnv();
    Ort::SessionOptions options;
    a2xSessionOptions(options, threadsOr(threads), "w2v");
    g_w2vwin_trunk = new Ort::Session(le_a2x_open_session(env, trunkPath.c_str(), options));
    g_w2vwin_head = new Ort::Session(le_a2x_open_session(env, headPath.c_str(), options));
    g_w2vwin_trunk_out = outputName(*g_w2vwin_trunk, 0);
    const std::vector<int64_t> shape = outputShape(*g_w2vwin_trunk, 0);
    if (shape.size() == 3 && shape[2] > 0) g_w2vwin_LT.store(static_cast<int>(shape[2]));
    const int lt = g_w2vwin_LT.load();
    const std::string ltText = lt > 0 ? std::to_string(lt) : "from-first-run";
    std::fprintf(diag_stream(), "[le_a2x] short-window w2v frontend loaded (LT=%s) trunk=%s (%lld B) head=%s (%lld B)\n",
                 ltText.c_str(), trunkPath.c_str(), fileBytes(trunkPath), headPath.c_str(), fileBytes(headPath));
    return true;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[le_a2x] short-window w2v load FAILED (%s) — legacy 8s path\n", oneLine(e.what()).c_str());
    delete g_w2vwin_trunk;
    delete g_w2vwin_head;
    g_w2vwin_trunk = g_w2vwin_head = nullptr;
    g_w2vwin_trunk_out.clear();
    g_w2vwin_LT.store(0);
    return false;
  }
}

}  // namespace le
