#include "tessera/stream_borrow.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "compute/pool.h"
#include "compute/simd.h"
#include "director/diag.h"
#include "tessera/round.h"

namespace le::tessera {

namespace {

constexpr float kByteStep = 0.003921569f;  // 1/255 as the product table steps it: bits 0x3B808081

// D[i] = i * 0.003921569: a product, not a division, once per process.
const float* deltaTable() {
  static const std::array<float, 256> t = [] {
    std::array<float, 256> v{};
    for (int i = 0; i < 256; ++i) v[static_cast<size_t>(i)] = static_cast<float>(i) * kByteStep;
    return v;
  }();
  return t.data();
}

void checkWindow(const FrameResult& result, const GeometryStamp& stamp) {
  const size_t want = static_cast<size_t>(stamp.window_w()) * static_cast<size_t>(stamp.window_h()) * 3;
  if (result.rgb.size() != want) {
    throw std::runtime_error("teeth stream: window " + std::to_string(result.rgb.size()) +
                             " bytes does not match the stamp window " + std::to_string(stamp.window_h()) + "x" +
                             std::to_string(stamp.window_w()) + " — refusing to write back");
  }
}

}  // namespace

StreamBorrow::StreamBorrow(const BankData& bank, const HeadWeights& head, const ServeConfig& cfg, const UnifiedPi& pi,
                           const std::string& templateJson)
    : TeethPass(bank, head, cfg), pi_(pi) {
  const GeometryStamp& s = stamp();
  if (s.canvas_w() != s.canvas_h()) {
    throw std::runtime_error("teeth stream: non-square compose canvas " + std::to_string(s.canvas_w()) + "x" +
                             std::to_string(s.canvas_h()) + " — le_core renders a square crop");
  }
  if (pi_.canvas != s.canvas_w()) {
    throw std::runtime_error("teeth stream: manifest pi canvas " + std::to_string(pi_.canvas) +
                             " != bank compose canvas " + std::to_string(s.canvas_w()) +
                             " — refusing to compose a mouth on a canvas the stamp does not name");
  }
  canvas_ = s.canvas_w();
  c_canon_ = bank.c_canon;
  if (!templateJson.empty()) {
    lip_ = std::make_unique<LipContour>(LipContour::fromTemplateJson(templateJson, canvas_));
    std::fprintf(diag_stream(),
                 "[borrow] delivery mask: LIP CONTOUR (%d verts, feather %.1f px) — the ellipse is not reachable in "
                 "this session\n",
                 lip_->nv, static_cast<double>(lip_->feather));
  } else {
    std::fprintf(stderr,
                 "[borrow] !!! delivery mask: ELLIPSE — this bundle carries no %s, so it serves the over-covering "
                 "elliptical mask the contour replaces. BACKFILL IT: models/vespera-2/tools/bake_lip_templates\n",
                 "lip_template.v1.json");
  }
  const size_t px = static_cast<size_t>(canvas_) * static_cast<size_t>(canvas_);
  rgb_.assign(px * 3, 0);
  mask_.assign(px, 0);
  const char* roiEnv = std::getenv("LE_TESS_CPU_ROI");
  if (!(roiEnv && roiEnv[0] == '0')) {
    const Box r = cpuReadRect();
    roi_r0_ = r.y0;
    roi_r1_ = r.y1;
    roi_c0_ = r.x0;
    roi_c1_ = r.x1;
  }
  if (!std::getenv("LE_TESSERA_CPU")) gpu_ = MetalTeeth::create(*this);
  std::fprintf(diag_stream(), "[borrow] compositor: %s\n", gpu_ ? "METAL" : "CPU");
}

StreamBorrow::~StreamBorrow() {
  if (!gpu_ || gpu_->frames() <= 0) return;
  const double n = static_cast<double>(gpu_->frames());
  std::fprintf(stderr, "[borrow-metal] frames=%ld compositor %.3f ms/frame wall (gpu %.3f)\n",
               static_cast<long>(gpu_->frames()), gpu_->wallMs() / n, gpu_->gpuMs() / n);
  if (const double* k = gpu_->kernelSplit()) {
    std::fprintf(stderr,
                 "[borrow-metal-split] ms/frame gather=%.4f conv0=%.4f conv1=%.4f conv2=%.4f synth=%.4f "
                 "compose=%.4f\n",
                 k[0] * 1000.0 / n, k[1] * 1000.0 / n, k[2] * 1000.0 / n, k[3] * 1000.0 / n, k[4] * 1000.0 / n,
                 k[5] * 1000.0 / n);
  }
}

bool StreamBorrow::push(const float* canvas, const float* kp, FrameResult& result) {
  const size_t plane = static_cast<size_t>(canvas_) * static_cast<size_t>(canvas_);
  if (!gpu_ && roi_r0_ < roi_r1_ && roi_c0_ < roi_c1_) {
    // Only the window and its margin: checkSynthRead keeps the pass inside.
    const size_t w = static_cast<size_t>(roi_c1_ - roi_c0_);
    for (int32_t r = roi_r0_; r < roi_r1_; ++r) {
      const size_t at = static_cast<size_t>(r) * canvas_ + roi_c0_;
      for (int c = 0; c < 3; ++c) simd::quantU8Strided3(canvas + c * plane + at, rgb_.data() + at * 3 + c, w);
    }
  } else {
    for (int c = 0; c < 3; ++c) {
      pool::parallelRange(plane, 4096, [&](size_t lo, size_t hi) {
        simd::quantU8Strided3(canvas + c * plane + lo, rgb_.data() + lo * 3 + c, hi - lo);
      });
    }
  }
  return pushSynth(kp, result);
}

bool StreamBorrow::pushRgba(const uint8_t* rgba, const float* kp, FrameResult& result) {
  const size_t px = static_cast<size_t>(canvas_) * static_cast<size_t>(canvas_);
  for (size_t i = 0; i < px; ++i) {
    rgb_[3 * i] = rgba[4 * i];
    rgb_[3 * i + 1] = rgba[4 * i + 1];
    rgb_[3 * i + 2] = rgba[4 * i + 2];
  }
  return pushSynth(kp, result);
}

bool StreamBorrow::pushSynth(const float* kp, FrameResult& result) {
  int32_t shift[2] = {0, 0};
  // The mask the pass sees is the delivered one; the shift is always pi's,
  // against which the donors were placed when the bank was built.
  const bool found = lip_ ? lip_->deliveredU8AndShift(kp, pi_, c_canon_.data(), mask_.data(), shift[0], shift[1])
                          : pi_.piU8AndShift(kp, c_canon_.data(), mask_.data(), shift[0], shift[1]);
  const int32_t* fixed = found ? shift : nullptr;
  const bool done = gpu_ ? gpu_->push(frame_, rgb_.data(), mask_.data(), fixed, result)
                         : TeethPass::push(frame_, rgb_.data(), mask_.data(), fixed, result);
  ++frame_;
  return done;
}

bool StreamBorrow::flush(FrameResult& result) { return gpu_ ? gpu_->flush(result) : TeethPass::flush(result); }

void StreamBorrow::writeWindowDelta(float* canvas, int32_t S, const FrameResult& result, const GeometryStamp& stamp) {
  if (result.skipped) return;
  checkWindow(result, stamp);
  const float* D = deltaTable();
  const int32_t ww = stamp.window_w(), wh = stamp.window_h();
  const size_t plane = static_cast<size_t>(S) * static_cast<size_t>(S);
  thread_local std::vector<uint8_t> q;
  if (q.size() < 3 * static_cast<size_t>(ww)) q.resize(3 * static_cast<size_t>(ww));
  for (int c = 0; c < 3; ++c) {
    for (int32_t y = 0; y < wh; ++y) {
      float* row = canvas + c * plane + static_cast<size_t>(stamp.window_y0() + y) * S + stamp.window_x0();
      simd::quantU8Strided3(row, q.data(), static_cast<size_t>(ww));
      const uint8_t* r = result.rgb.data() + static_cast<size_t>(y) * ww * 3 + c;
      for (int32_t x = 0; x < ww; ++x) {
        const float v = row[x] + (D[r[3 * x]] - D[q[3 * static_cast<size_t>(x)]]);
        row[x] = v > 0.0f ? std::min(v, 1.0f) : 0.0f;
      }
    }
  }
}

void StreamBorrow::writeWindowDeltaRgba(uint8_t* rgba, int32_t S, const FrameResult& result,
                                        const GeometryStamp& stamp) {
  if (result.skipped) return;
  checkWindow(result, stamp);
  const int32_t ww = stamp.window_w(), wh = stamp.window_h();
  for (int32_t y = 0; y < wh; ++y) {
    for (int32_t x = 0; x < ww; ++x) {
      uint8_t* px = rgba + (static_cast<size_t>(stamp.window_y0() + y) * S + stamp.window_x0() + x) * 4;
      const uint8_t* r = result.rgb.data() + (static_cast<size_t>(y) * ww + x) * 3;
      for (int c = 0; c < 3; ++c) {
        const float cur = static_cast<float>(static_cast<double>(px[c]) / 255.0);
        const float q = static_cast<float>(roundHalfEven(static_cast<double>(std::min(std::max(cur, 0.0f), 1.0f) * 255.0f)));
        const float d = static_cast<float>(r[c]) * kByteStep - q * kByteStep;
        float nv = d + cur;
        nv = nv > 0.0f ? std::min(nv, 1.0f) : 0.0f;
        const double v = static_cast<double>(nv) * 255.0;
        px[c] = v <= 0.0 ? 0 : v >= 255.0 ? 255 : static_cast<uint8_t>(roundHalfEven(v));
      }
    }
  }
}

}  // namespace le::tessera
