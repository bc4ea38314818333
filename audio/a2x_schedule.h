// The frame accounting of the streaming model and the walk through the
// source rows, as pure functions of the stream's counters: the live schedule
// depends on how many samples exist, never on how the host cut them.
#pragma once

#include <cstdint>

namespace le::a2x {

constexpr int kSampleRate = 16000;
constexpr int kFrameSamples = 640;   // one video frame, 40 ms
constexpr int kBlockSamples = 5120;  // 8 frames: the unit in which live audio becomes usable
constexpr int kBlockFrames = 8;
constexpr int kLayers = 12;
constexpr int kChannels = 768;
constexpr int kFeatFloats = kLayers * kChannels;  // one feature frame, layer-major
constexpr int kKp = 63;                           // one keypoint frame
constexpr int kLiveChunk = 64;                    // encoder rows per run, live
constexpr int kBatchChunk = 24;                   // encoder rows per run, whole clip
constexpr int kTrimFrames = 128;                  // hysteresis of the frame buffers
constexpr int64_t kTrimSamples = 81920;           // hysteresis of the audio buffer

// Samples the live stages may use out of s pushed: all once finished, else
// whole blocks, a block lacking at most 639 samples counting as reached, and
// never beyond what exists.
inline int64_t usableSamples(int64_t s, bool finished) {
  if (finished) return s;
  const int64_t blocks = ((s + kFrameSamples - 1) / kBlockSamples) * kBlockSamples;
  return blocks < s ? blocks : s;
}

inline int audioFramesOf(int64_t usable) { return static_cast<int>((usable + kFrameSamples - 1) / kFrameSamples); }

// Frames that may leave: all once finished, else those whose look-ahead (the
// encoder's reach or the frontend's hold-back, whichever is larger) exists.
inline int readyFrames(int audioFrames, bool finished, int windowLayers, int lag) {
  if (finished) return audioFrames;
  const int hold = windowLayers > lag ? windowLayers : lag;
  return audioFrames > hold ? audioFrames - hold : 0;
}

// The source row of frame f: looping over NT rows, or ping-ponging between
// the first and the last. dir is +1 or -1.
inline int rowOf(int64_t f, int start, int dir, int loop, int nt) {
  if (nt < 2) return 0;
  const int64_t p = static_cast<int64_t>(start) + static_cast<int64_t>(dir) * f;
  if (loop) {
    const int64_t r = p % nt;
    return static_cast<int>(r < 0 ? r + nt : r);
  }
  const int64_t period = 2 * static_cast<int64_t>(nt - 1);
  int64_t q = p % period;
  if (q < 0) q += period;
  return static_cast<int>(q > nt - 1 ? period - q : q);
}

// A delta from the decoder's normalised output: the product is rounded to
// float before the mean is added (the build never contracts the two).
inline float denormalise(float m, float stdv, float mean) {
  const float scaled = m * stdv;
  return scaled + mean;
}

}  // namespace le::a2x
