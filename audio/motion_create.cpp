// Opening a motion directory: meta.json, the tables in a fixed order, the
// character's motion row kp0, the three graphs (a warm-up run each), and a
// fresh utterance.
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "audio/a2x_ort.h"
#include "audio/motion.h"
#include "audio/motion_files.h"
#include "audio/motion_mel.h"
#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/members.h"
#include "compute/threads.h"
#include "director/renderer.h"

using namespace le::motion;

namespace le {

namespace {

// The meta.json text; a missing file is refused as the tables are.
std::string readMeta(const std::string& path) {
  if (!canOpen(path)) throw std::runtime_error("cannot open " + path);
  return readFile(path);
}

int metaCount(const std::string& meta, const char* key) {
  const double v = motion::metaNumber(meta, key, true);
  if (!(v >= 1.0 && v <= 1e7))
    throw std::runtime_error(std::string("meta.json: ") + key + " must be a count of 1 or more, found " +
                             std::to_string(v));
  return static_cast<int>(v);
}

}  // namespace

std::unique_ptr<le_motion> createMotion(const char* motionDir, int threads, const char* epText) {
  auto m = std::make_unique<le_motion>();
  m->env = Ort::Env(a2xOrtLogLevel(), "le_motion");
  fftTwiddles(m->twRe.data(), m->twIm.data());
  if (threads <= 0) threads = pool::threads();
  const std::string ep = epText ? epText : "";

  const std::string dir = resolveBundlePath(motionDir);
  if (const char* d = std::getenv("LE_MOTION_DUMP")) m->dumpDir = d;
  const std::string meta = readMeta(dir + "/meta.json");
  m->nt = metaCount(meta, "nt");
  m->n_src = metaCount(meta, "n_src");
  m->n_emo = metaCount(meta, "n_emo");
  m->s_bridge = static_cast<float>(motion::metaNumber(meta, "s_bridge", true));
  m->delta_pitch = static_cast<float>(motion::metaNumber(meta, "delta_pitch", false, 0.0));
  if (m->n_src != m->nt) throw std::runtime_error("le_motion: n_src != nt unsupported");

  auto table = [&](const char* name, size_t n) { return motion::readFloats(dir + "/" + name, n); };
  m->window = table("hubert_stft_window.bin", kFft);
  m->binmat = table("hubert_stft_binmat.bin", static_cast<size_t>(kBins) * kMel);
  m->fmean = table("hubert_fmean.bin", kFeatDim);
  m->fstd = table("hubert_fstd.bin", kFeatDim);
  m->emo = table("emo.bin", static_cast<size_t>(m->n_emo) * kEmoDim);
  m->ch = table("ch_xs_info.bin", kSrcDim);
  m->chSc = table("ch_sc.bin", kKp);
  m->chEyeOpen = table("ch_eye_open.bin", 2);
  m->chEyeBall = table("ch_eye_ball.bin", 6);
  const std::vector<float> limits = table("v_min_max.bin", 2 * kMotionDim);
  m->vmin.assign(limits.begin(), limits.begin() + kMotionDim);
  m->vmax.assign(limits.begin() + kMotionDim, limits.end());
  m->src = table("src_xs_info.bin", static_cast<size_t>(m->n_src) * kSrcDim);
  m->target = motion::readFloats(resolveMember(dir, "xs_target.bin"), static_cast<size_t>(m->nt) * kKp);

  const float* ch = m->ch.data();
  m->kp0[0] = ch[kSrcScale] - 1.0f;
  for (int i = 0; i < 66; ++i) {
    m->kp0[static_cast<size_t>(1 + i)] = ch[kSrcPitch + i];
    m->kp0[static_cast<size_t>(67 + i)] = ch[kSrcYaw + i];
    m->kp0[static_cast<size_t>(133 + i)] = ch[kSrcRoll + i];
  }
  for (int i = 0; i < 3; ++i) m->kp0[static_cast<size_t>(199 + i)] = ch[kSrcT + i];
  for (int i = 0; i < kKp; ++i) m->kp0[static_cast<size_t>(kExpAt + i)] = ch[kSrcExp + i];
  m->rel = ch[kSrcScale] / m->src[kSrcScale];

  Ort::SessionOptions options;
  sessionOptions(options, threads);
  appendProvider(options, ep, coremlCacheDir(dir));
  Ort::SessionOptions cpu;  // the stitch graph always runs on the CPU
  sessionOptions(cpu, threads);
  m->student = std::make_unique<Net>(m->env, dir + "/hubert_student.onnx", options);
  m->lmdm = std::make_unique<Net>(m->env, dir + "/lmdm.onnx", options);
  m->stitch = std::make_unique<Net>(m->env, dir + "/stitch.onnx", cpu);

  // Every graph buffer, once.
  m->slice.assign(kSlice, 0.0f);
  m->mel.assign(static_cast<size_t>(kMel) * kSpectra, 0.0f);
  m->feat.assign(static_cast<size_t>(kFeatRows) * kFeatDim, 0.0f);
  m->pred.assign(static_cast<size_t>(kChunk) * kMotionDim, 0.0f);
  m->chunkIn.assign(static_cast<size_t>(kChunk) * kCondDim, 0.0f);
  m->stateIn.assign(kMotionDim, 0.0f);
  m->xsLa.assign(kKp, 0.0f);
  m->xdLa.assign(kKp, 0.0f);
  m->st.assign(kKp, 0.0f);
  m->yRow.assign(kMotionDim, 0.0f);
  m->savedTail.assign(static_cast<size_t>(kOverlap) * kMotionDim, 0.0f);

  m->reset(0, 1, 0);

  // Warm-up: each graph once on zeros, the motion graph on kp0; a graph
  // that doesn't take the pipeline's shapes is refused here.
  m->runStudent();
  std::copy(m->kp0.begin(), m->kp0.end(), m->stateIn.begin());
  m->runLmdm();
  m->runStitch();
  return m;
}

}  // namespace le

void le_motion::reset(int start, int dir, int loop) {
  audio.clear();
  cond.clear();
  res.clear();
  finalRows.clear();
  finished = false;
  total = -1;
  windowAt = resRows = condRows = chunkAt = emitted = 0;
  provisionalCond = 0;
  provisionalRes = false;
  savedRows = 0;
  eagerFrames = eagerLimit = 0;
  eagerDue = false;
  exp0Set = false;
  kpState = kp0;
  finalBuilt = false;
  row = start < 0 ? 0 : start > nt - 1 ? nt - 1 : start;
  rowDir = dir < 0 ? -1 : 1;
  rowLoop = loop;
}
