// The motion pipeline's schedule: windows of 5 frames become condition rows,
// chunks of 80 condition rows become motion rows (a new chunk every 70,
// crossfaded over the 10 it shares with the last and smoothed across the
// seam), and at the end of the utterance the whole sequence is smoothed once
// more and limited. Eager passes run the unfinished windows and chunks ahead
// of the audio, provisionally.
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <string>

#include "audio/motion.h"
#include "audio/motion_files.h"
#include "audio/motion_mel.h"

using namespace le::motion;

namespace {

float* rowOf(std::vector<float>& v, int r, int width) { return v.data() + static_cast<size_t>(r) * width; }

}  // namespace

void le_motion::runStudent() {
  static const std::vector<int64_t> shape{1, kFeatRows, kFeatDim};
  const float* in[] = {mel.data()};
  const size_t sizes[] = {mel.size()};
  student->run(in, sizes, 1, feat.data(), feat.size(), shape);
}

void le_motion::runLmdm() {
  static const std::vector<int64_t> shape{1, kChunk, kMotionDim};
  const float* in[] = {stateIn.data(), chunkIn.data()};
  const size_t sizes[] = {stateIn.size(), chunkIn.size()};
  lmdm->run(in, sizes, 2, pred.data(), pred.size(), shape);
}

void le_motion::runStitch() {
  static const std::vector<int64_t> shape{1, 21, 3};
  const float* in[] = {xsLa.data(), xdLa.data()};
  const size_t sizes[] = {xsLa.size(), xdLa.size()};
  stitch->run(in, sizes, 2, st.data(), st.size(), shape);
}

void le_motion::dump(const char* name, const float* data, size_t count, bool append) const {
  if (!dumpDir.empty()) writeFloats(dumpDir, name, data, count, append);
}

void le_motion::processWindow(int w) {
  const int64_t first = static_cast<int64_t>(w) * kFrameSamples - kSliceLead;
  const int64_t have = samples();
  for (int i = 0; i < kSlice; ++i) {
    const int64_t j = first + i;
    slice[static_cast<size_t>(i)] = j >= 0 && j < have ? audio[static_cast<size_t>(j)] : 0.0f;
  }
  logMel(slice.data(), window.data(), binmat.data(), twRe.data(), twIm.data(), mel.data());
  runStudent();
  for (int r = 0; r < kFeatRows; ++r) {
    float* f = rowOf(feat, r, kFeatDim);
    for (int c = 0; c < kFeatDim; ++c) {
      const float scaled = f[c] * fstd[static_cast<size_t>(c)];
      f[c] = scaled + fmean[static_cast<size_t>(c)];
    }
  }
  if (w == 0) {
    dump("mel0.bin", mel.data(), mel.size(), false);
    dump("feat0.bin", feat.data(), feat.size(), false);
  }
  cond.resize(static_cast<size_t>(condRows + kWindowStep) * kCondDim);
  for (int r = 0; r < kWindowStep; ++r) {
    float* c = rowOf(cond, condRows + r, kCondDim);
    const float* a = rowOf(feat, 6 + 2 * r, kFeatDim);
    const float* b = rowOf(feat, 7 + 2 * r, kFeatDim);
    for (int k = 0; k < kFeatDim; ++k) c[k] = (a[k] + b[k]) * 0.5f;
    std::memcpy(c + 1024, rowOf(emo, (w + r) % n_emo, kEmoDim), kEmoDim * sizeof(float));
    std::memcpy(c + 1032, chEyeOpen.data(), 2 * sizeof(float));
    std::memcpy(c + 1034, chEyeBall.data(), 6 * sizeof(float));
    std::memcpy(c + 1040, chSc.data(), kKp * sizeof(float));
  }
  condRows += kWindowStep;
}

void le_motion::dropProvisionalCond() {
  condRows -= provisionalCond;
  provisionalCond = 0;
  cond.resize(static_cast<size_t>(condRows) * kCondDim);
}

void le_motion::advanceWindows() {
  for (;;) {
    const bool go = finished ? windowAt < total
                             : kLiveReach + static_cast<int64_t>(windowAt) * kFrameSamples <= samples();
    if (!go) break;
    dropProvisionalCond();
    processWindow(windowAt);
    windowAt += kWindowStep;
  }
  if (finished) {
    dropProvisionalCond();
    if (condRows > total) {
      condRows = total;
      cond.resize(static_cast<size_t>(condRows) * kCondDim);
    }
  }
}

void le_motion::runChunk(int start, int limit, std::array<float, kMotionDim>& state) {
  const int last = std::min(std::min(condRows, limit) - start, kChunk) - 1;
  if (last < 0)
    throw std::runtime_error("motion chunk at frame " + std::to_string(start) + " has no condition rows (" +
                             std::to_string(condRows) + " exist)");
  for (int i = 0; i < kChunk; ++i)
    std::memcpy(rowOf(chunkIn, i, kCondDim), rowOf(cond, start + std::min(last, i), kCondDim),
                kCondDim * sizeof(float));
  std::copy(state.begin(), state.end(), stateIn.begin());
  runLmdm();
  if (start == 0) {
    dump("lmdm0_kp.bin", stateIn.data(), stateIn.size(), false);
    dump("lmdm0_aud.bin", chunkIn.data(), chunkIn.size(), false);
    dump("lmdm0_pred.bin", pred.data(), pred.size(), false);
  }
  if (resRows == 0) {
    res.assign(pred.begin(), pred.end());
    resRows = kChunk;
    smooth(0, kChunk);
  } else {
    const int n = resRows;
    for (int i = 0; i < kOverlap; ++i) {
      const float a = static_cast<float>(i) / 10.0f;
      float* r = rowOf(res, n - kOverlap + i, kMotionDim);
      const float* p = rowOf(pred, i, kMotionDim);
      for (int d = 0; d < kMotionDim; ++d) {
        const float keep = (1.0f - a) * r[d];
        const float take = a * p[d];
        r[d] = keep + take;
      }
    }
    res.insert(res.end(), pred.begin() + static_cast<std::ptrdiff_t>(kOverlap) * kMotionDim, pred.end());
    resRows = n + kChunkStep;
    smooth(n - kOverlap, n + 1);
  }
  state = kp0;
  std::memcpy(state.data(), rowOf(res, resRows - 11, kMotionDim), kPoseDims * sizeof(float));
}

void le_motion::smooth(int a, int b) {
  const int lo = std::max(a, 0), hi = std::min(b, resRows);
  if (lo >= hi) return;
  // The rows the means read, as they were before this pass.
  const int first = std::max(lo - 1, 0), last = std::min(hi, resRows - 1);
  smoothCopy.assign(rowOf(res, first, kMotionDim), rowOf(res, last, kMotionDim) + kMotionDim);
  for (int i = lo; i < hi; ++i) {
    const int r0 = std::max(i - 1, 0), r1 = std::min(i + 1, resRows - 1);
    const float count = static_cast<float>(r1 - r0 + 1);
    float* out = rowOf(res, i, kMotionDim);
    for (int d = 0; d < kPoseDims; ++d) {
      float sum = 0.0f;
      for (int r = r0; r <= r1; ++r) sum += rowOf(smoothCopy, r - first, kMotionDim)[d];
      out[d] = sum / count;
    }
  }
}

void le_motion::restoreRes() {
  if (!provisionalRes) return;
  resRows = savedRows;
  res.resize(static_cast<size_t>(resRows) * kMotionDim);
  const int tail = std::min(resRows, kOverlap);
  std::memcpy(rowOf(res, resRows - tail, kMotionDim), savedTail.data(),
              static_cast<size_t>(tail) * kMotionDim * sizeof(float));
  provisionalRes = false;
}

void le_motion::advanceChunks() {
  for (;;) {
    const int start = chunkAt * kChunkStep;
    const int committed = condRows - provisionalCond;
    if (!(committed >= start + kChunk || (finished && start < total && condRows > start))) break;
    restoreRes();
    runChunk(start, INT_MAX, kpState);
    ++chunkAt;
    eagerDue = true;
  }
  if (finished && chunkAt * kChunkStep >= total && !finalBuilt) buildFinal();
}

void le_motion::buildFinal() {
  restoreRes();
  resRows = std::min(total, resRows);
  res.resize(static_cast<size_t>(resRows) * kMotionDim);
  dump("res_post.bin", res.data(), res.size(), false);
  smooth(0, resRows);
  finalRows = res;
  for (int r = 0; r < resRows; ++r) limit(rowOf(finalRows, r, kMotionDim));
  finalBuilt = true;
  dump("final.bin", finalRows.data(), finalRows.size(), false);
}

void le_motion::limit(float* y) const {
  // As written, so that a NaN comes out as the lower limit.
  for (int d = 0; d < kMotionDim; ++d) {
    float v = y[d];
    v = vmin[static_cast<size_t>(d)] < v ? v : vmin[static_cast<size_t>(d)];
    v = v < vmax[static_cast<size_t>(d)] ? v : vmax[static_cast<size_t>(d)];
    y[d] = v;
  }
}

void le_motion::eagerAdvance() {
  if (eager == 0 || finished) return;
  const int F = audioFrames();
  if (F <= eagerFrames && !eagerDue) return;
  if (!eagerDue) {
    int threshold = eager;
    if (emitted == 0)
      threshold = 1;
    else if (eager < 0)
      threshold = std::clamp(static_cast<int>(eagerMs / 40.0 + 0.999), 1, 8);
    if (F - eagerFrames < threshold) return;
  }
  const auto t0 = std::chrono::steady_clock::now();
  eagerWindows(F);
  eagerChunks(F);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  eagerMs = eagerMs == 0.0 ? ms : 0.7 * eagerMs + 0.3 * ms;
}

void le_motion::eagerWindows(int F) {
  dropProvisionalCond();
  for (int w = windowAt; w < F; w += kWindowStep) {
    processWindow(w);
    provisionalCond += kWindowStep;
  }
}

void le_motion::eagerChunks(int F) {
  restoreRes();
  if (chunkAt * kChunkStep < F) {
    savedRows = resRows;
    const int tail = std::min(resRows, kOverlap);
    if (tail > 0)  // before the first chunk there is nothing to keep (and no buffer yet)
      std::memcpy(savedTail.data(), rowOf(res, resRows - tail, kMotionDim),
                  static_cast<size_t>(tail) * kMotionDim * sizeof(float));
    provisionalRes = true;
    std::array<float, kMotionDim> state = kpState;
    for (int s = chunkAt * kChunkStep; s < F; s += kChunkStep) runChunk(s, F, state);
  }
  eagerFrames = F;
  eagerLimit = std::max(F - 1, eagerLimit);
  eagerDue = false;
}

void le_motion::advance() {
  advanceWindows();
  advanceChunks();
  eagerAdvance();
}

int le_motion::ready() const {
  if (finalBuilt) return resRows - emitted;
  if (eager != 0) return std::max(std::min(resRows - 1, eagerLimit) - emitted, 0);
  return std::max(std::min(condRows - 1, resRows - 11) - emitted, 0);
}

void le_motion::push(const float* pcm, int n) { audio.insert(audio.end(), pcm, pcm + n); }

void le_motion::finish() {
  finished = true;
  total = audioFrames();
  if (dumpDir.empty()) return;
  advanceWindows();
  advanceChunks();
  dump("cond.bin", cond.data(), cond.size(), false);
}

int le_motion::avail() {
  advance();
  return ready();
}
