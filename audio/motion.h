// The motion pipeline behind the le_motion handle: 16 kHz speech becomes a
// log-mel spectrogram (computed here), speech features (hubert_student.onnx),
// a motion sequence made chunk by chunk (lmdm.onnx) whose chunks overlap,
// crossfade and are smoothed, and at last keypoints rebuilt for the source
// frame and corrected by stitch.onnx. What leaves per 40 ms frame is a row
// of xs_target.bin, that row (xs) and the driven keypoints (xd), as the
// streaming model gives them.
//
// Committed condition rows and motion rows only go forward; in eager mode
// the tail of both is provisional: rows computed ahead of the audio with
// zeros standing in for what has not arrived, replaced when it has. A frame
// handed out from a provisional row is not taken back. No lock: the owning
// thread alone calls it.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/motion_net.h"

namespace le::motion {

constexpr int kFrameSamples = 640;  // 40 ms at 16 kHz
constexpr int kWindowStep = 5;      // frames per window
constexpr int kSlice = 6480;        // samples of a window, from kSliceLead before its first frame
constexpr int kSliceLead = 2000;
constexpr int kLiveReach = 4480;  // samples past a window's first frame that a live window needs
constexpr int kFeatRows = 20;
constexpr int kFeatDim = 1024;
constexpr int kEmoDim = 8;
constexpr int kCondDim = 1103;  // features 1024, emotion 8, eye opening 2, eye balls 6, keypoints 63
constexpr int kMotionDim = 265;
constexpr int kPoseDims = 202;  // smoothed: scale, pitch, yaw, roll logits, translation
constexpr int kExpAt = 202;     // expression, 21 rows of 3
constexpr int kChunk = 80;
constexpr int kChunkStep = 70;
constexpr int kOverlap = kChunk - kChunkStep;
constexpr int kSrcDim = 328;
constexpr int kKp = 63;

// Offsets in a source row (src_xs_info.bin, ch_xs_info.bin).
constexpr int kSrcExp = 0, kSrcKp = 63, kSrcPitch = 126, kSrcRoll = 192, kSrcScale = 258, kSrcT = 259,
              kSrcYaw = 262;

}  // namespace le::motion

struct le_motion {
  // ---- configuration, fixed at creation ----
  int nt = 0, n_src = 0, n_emo = 0;
  float s_bridge = 0.0f, delta_pitch = 0.0f;
  float rel = 1.0f;  // ch.scale / src[0].scale
  std::string dumpDir;
  std::vector<float> window, binmat, fmean, fstd, emo, ch, chSc, chEyeOpen, chEyeBall, vmin, vmax, src, target;
  std::array<float, le::motion::kMotionDim> kp0{};
  std::array<float, 256> twRe{}, twIm{};  // FFT twiddles: k * -2 pi / 512

  Ort::Env env{nullptr};
  std::unique_ptr<le::motion::Net> student, lmdm, stitch;

  // ---- the utterance ----
  std::vector<float> audio;  // every sample of the utterance; never trimmed
  bool finished = false;
  int total = -1;
  int windowAt = 0;
  std::vector<float> cond;  // condition rows, kCondDim each
  int condRows = 0;
  std::vector<float> res;  // motion rows, kMotionDim each
  int resRows = 0;
  int chunkAt = 0;
  std::array<float, le::motion::kMotionDim> kpState{};
  bool finalBuilt = false;
  std::vector<float> finalRows;  // the clipped final sequence
  int emitted = 0;
  std::array<float, le::motion::kKp> exp0{};
  bool exp0Set = false;
  int row = 0, rowDir = 1, rowLoop = 0;

  // ---- eager mode ----
  int eager = 0;
  int provisionalCond = 0;
  bool provisionalRes = false;
  int savedRows = 0;
  std::vector<float> savedTail;  // the last kOverlap motion rows before a provisional pass
  int eagerFrames = 0, eagerLimit = 0;
  bool eagerDue = false;
  double eagerMs = 0.0;  // running cost of a pass; kept across utterances

  // ---- graph buffers, sized once ----
  std::vector<float> slice;     // 6480 samples of a window
  std::vector<float> mel;       // 80 bands x 21 spectra
  std::vector<float> feat;      // 20 x 1024
  std::vector<float> chunkIn;   // 80 x 1103
  std::vector<float> pred;      // 80 x 265
  std::vector<float> stateIn;   // 265
  std::vector<float> xsLa, xdLa, st;  // 63 each
  std::vector<float> smoothCopy;      // rows a smoothing pass reads
  std::vector<float> yRow;            // the motion row of the frame being emitted

  // ---- the C calls ----
  void reset(int start, int dir, int loop);
  void push(const float* pcm, int n);
  void finish();
  int avail();
  int pull(int* rows, float* xs, float* xd, int max);

  // ---- the schedule ----
  int64_t samples() const { return static_cast<int64_t>(audio.size()); }
  int audioFrames() const { return static_cast<int>((samples() + le::motion::kFrameSamples - 1) / le::motion::kFrameSamples); }
  void advance();  // committed windows and chunks, then an eager pass if due
  int ready() const;
  void processWindow(int w);
  void dropProvisionalCond();
  void advanceWindows();
  void runChunk(int start, int limit, std::array<float, le::motion::kMotionDim>& state);
  void smooth(int a, int b);
  void restoreRes();
  void advanceChunks();
  void buildFinal();
  void limit(float* y) const;  // each dim into [vmin, vmax]
  void eagerAdvance();
  void eagerWindows(int F);
  void eagerChunks(int F);

  // ---- the graphs, over the buffers above ----
  void runStudent();  // mel -> feat
  void runLmdm();     // stateIn, chunkIn -> pred
  void runStitch();   // xsLa, xdLa -> st

  // ---- frames out ----
  void motionRowOf(int f, float* y) const;
  void emitFrame(const float* y, int r, float* xs, float* xd);
  void dump(const char* name, const float* data, size_t count, bool append) const;
};

namespace le {

// Builds an object as le_motion_create does; throws the refusal sentence.
std::unique_ptr<le_motion> createMotion(const char* motionDir, int threads, const char* ep);

}  // namespace le
