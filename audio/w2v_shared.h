// The speech encoders, loaded once per process and shared by every le_a2x:
// the 8 s graph and the short-window trunk/head pair beside it. Loading
// happens under g_w2v_mtx; afterwards the sessions are used without a lock,
// ONNX Runtime's Run being safe to call from several threads at once. They
// stay until the process ends and are never reloaded, not even for another
// path.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace le {

// Sizes of the graphs' windows and outputs.
constexpr int kW2vWindowSamples = 128000;  // 8 s graph input
constexpr int kW2vWindowFrames = 200;      // 8 s graph output frames
constexpr int kW2vHopFrames = 100;         // frames between two 8 s windows
constexpr int kTrunkSamples = 32000;       // trunk input
constexpr int kTrunkChannels = 640;        // trunk output channels
constexpr int kTrunkHop = 80;              // samples between two trunk positions
constexpr size_t kZeroEmbFloats = static_cast<size_t>(12) * 200 * 768;

extern std::mutex g_w2v_mtx;
extern std::mutex g_zeroemb_mtx;  // taken before g_w2v_mtx, never after

// Guarded by g_w2v_mtx while loading; read-only afterwards. Never freed: the
// sessions live as long as the process.
extern Ort::Env* g_w2v_env;
extern Ort::Session* g_w2v_session;
extern std::string g_w2v_path;
extern Ort::Session* g_w2vwin_trunk;
extern Ort::Session* g_w2vwin_head;
extern bool g_w2vwin_tried;
extern std::string g_w2vwin_trunk_out;
// Length of the trunk's time axis; 0 until known (declared by the graph, or
// read from its first result).
extern std::atomic<int> g_w2vwin_LT;

// The 8 s graph's output for silence, 1843200 floats; guarded by
// g_zeroemb_mtx while filled.
extern std::vector<float> g_zeroemb;

// The 8 s session, loaded from path at the first call with these threads
// (below 1: le::pool::threads()). Later calls return it whatever their
// arguments. Throws the loader's reason if it can't be opened; a later call
// tries again.
Ort::Session* get_shared_w2v(const char* path, int threads);

// True if the short-window pair is loaded, loading it at the first call:
// from LE_A2X_W2V_WIN_ONNX and LE_A2X_W2V_HEAD_ONNX when both are set and
// not empty, else from the first pair of sibling names beside w2vPath. A
// process whose first call found or loaded no pair gets false forever.
bool get_shared_w2v_win(int threads, const char* w2vPath);

// The pair beside a speech encoder, in the order the names are looked for;
// both files must open. False if none is there.
bool w2v_win_sibling_pair(const std::string& w2vPath, std::string& trunk, std::string& head);

}  // namespace le
