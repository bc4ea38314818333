// Opening a bundle's streaming model: the meta keys, the tables, the speech
// frontend (the short-window pair when it exists, else the 8 s graph), the
// encoder and decoder, and the decoder's start state.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>

#include "audio/a2x.h"
#include "audio/a2x_meta.h"
#include "audio/a2x_ort.h"
#include "audio/w2v_shared.h"
#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/members.h"
#include "compute/threads.h"
#include "director/diag.h"

namespace le {

namespace {

// The whole file as float32 values; a trailing partial value is ignored.
std::vector<float> readFloats(const std::string& path) {
  const std::string bytes = readFile(path);
  std::vector<float> v(bytes.size() / sizeof(float));
  if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
  return v;
}

void requireNames(const Ort::Session& s, const char* member, std::initializer_list<const char*> inputs) {
  for (const char* name : inputs)
    if (!hasInput(s, name))
      throw std::runtime_error(std::string(member) + " has no input '" + name + "'; it is not a streaming a2x graph");
}

}  // namespace

std::unique_ptr<le_a2x> createA2x(const char* bundle, int threads) {
  auto a = std::make_unique<le_a2x>();
  a->env = Ort::Env(a2xOrtLogLevel(), "le_a2x");
  const int most = pool::threads();
  a->threads = (threads < 1 || threads > most) ? most : threads;
  static std::once_flag cadenceLogged;
  std::call_once(cadenceLogged, [&] {
    std::fprintf(diag_stream(),
                 "[le_a2x] live cadence: block-%d (one trunk window per %d frames), push-size invariant, threads=%d\n",
                 320, 8, a->threads);
  });
  a->options = Ort::SessionOptions();
  a2xSessionOptions(a->options, a->threads, "enc/dec");

  a->bundleDir = resolveBundlePath(bundle);
  std::string meta;
  try {
    meta = readFile(a->bundleDir + "/a2x_meta.json");
  } catch (const std::exception&) {
    meta.clear();
  }
  if (meta.empty()) throw std::runtime_error("a2x_meta.json missing in " + a->bundleDir);
  const A2xMeta keys = readA2xMeta(meta);
  a->h = keys.h;
  a->window = keys.window;
  a->left = keys.left;
  a->layers = keys.layers;
  a->windowLayers = keys.windowLayers;
  a->leftLayers = keys.leftLayers;

  const char* right = std::getenv("LE_A2X_W2V_RIGHT");
  a->R = right ? std::max(std::atoi(right), 0) : 12;

  try {
    a->pos = readFloats(a->bundleDir + "/a2x_pos.f32");
    const std::vector<float> norm = readFloats(a->bundleDir + "/a2x_norm.f32");
    a->xs = readFloats(resolveMember(a->bundleDir, "xs_target.bin"));
    if (a->pos.size() < 2 * static_cast<size_t>(a->h) || norm.size() < 2 * a2x::kKp || a->xs.size() < a2x::kKp)
      throw std::runtime_error("short");
    a->mean.assign(norm.begin(), norm.begin() + a2x::kKp);
    a->stdev.assign(norm.begin() + a2x::kKp, norm.begin() + 2 * a2x::kKp);
  } catch (const std::exception&) {
    throw std::runtime_error("pos/norm/xs_target read failed");
  }
  a->P = static_cast<int>(a->pos.size() / static_cast<size_t>(a->h));
  a->NT = static_cast<int>(a->xs.size() / a2x::kKp);

  const char* w2v = std::getenv("W2V_ONNX");
  if (!w2v || !*w2v) throw std::runtime_error("$W2V_ONNX not set");
  a->w2vPath = w2v;
  a->lag = a->R;
  if (get_shared_w2v_win(a->threads, w2v)) {
    a->shortWindow = true;
    a->lag = a->R + 8;
  } else {
    try {
      w2v8(a.get());
    } catch (const std::exception&) {
      throw std::runtime_error("shared w2v load failed");
    }
  }

  const std::string encPath = resolveMember(a->bundleDir, "a2x_enc_stream.onnx");
  a->enc = le_a2x_open_session(a->env, encPath.c_str(), a->options);
  requireNames(a->enc, "a2x_enc_stream.onnx", {"feat", "pos_window", "attn"});
  const size_t outputs = a->enc.GetOutputCount();
  a->encOut0 = outputName(a->enc, 0);
  if (outputs >= 2) {
    a->encOut1 = outputName(a->enc, 1);
    a->widthFlag = true;
  }
  const bool metaWidth = keys.width;
  if (metaWidth != a->widthFlag)
    std::fprintf(stderr,
                 "[le_a2x] WARNING: a2x_meta width=%d but the encoder declares %zu output(s) — serving the GRAPH "
                 "(width=%d). Repackage this bundle.\n",
                 metaWidth ? 1 : 0, outputs, a->widthFlag ? 1 : 0);

  const std::string decPath = resolveMember(a->bundleDir, "a2x_dec.onnx");
  a->dec = le_a2x_open_session(a->env, decPath.c_str(), a->options);
  requireNames(a->dec, "a2x_dec.onnx", {"ctx_t", "prev", "h"});
  a->bindDecoder();

  int prime = keys.silencePrime;
  if (const char* p = std::getenv("LE_A2X_SILENCE_PRIME")) prime = std::atoi(p);
  if (prime >= 1) {
    try {
      w2v8(a.get());
    } catch (const std::exception&) {
      throw std::runtime_error("shared w2v load failed (silence_prime)");
    }
    prime_silence(a.get(), prime);
  }

  a->reset(0, 1, 1);
  return a;
}

Ort::Session& w2v8(le_a2x* a) {
  if (!a->w2v8Session) {
    try {
      a->w2v8Session = get_shared_w2v(a->w2vPath.c_str(), a->threads);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[le_a2x] 8 s w2v encoder %s did not open: %s\n", a->w2vPath.c_str(), oneLine(e.what()).c_str());
    }
  }
  if (!a->w2v8Session)
    throw std::runtime_error("the shared 8 s w2v encoder did not load ($W2V_ONNX=" + a->w2vPath + ")");
  return *a->w2v8Session;
}

[[noreturn]] void failBehind(const char* stage) {
  throw std::runtime_error(std::string("stream read behind the retained window (") + stage + ")");
}

}  // namespace le
