// The arithmetic between the speech encoder and the frame graph of le_fca:
// six encoder layers averaged per frame, frame energies, a running centre
// of the frames above a gate (the 20 % quantile of the energies so far), and
// the seven centred rows that condition a frame. All of it has one defined
// result, bit for bit.
#pragma once

#include <vector>

namespace le::fca {

constexpr int kFeat = 768;
constexpr int kCondRows = 7;
constexpr int kCond = kCondRows * kFeat;  // 5376
constexpr int kHidden = 384;
constexpr int kKp = 63;
constexpr int kWindowFrames = 200;
constexpr int kHop = 100;
constexpr int kFirstLayer = 4, kLastLayer = 9;

// row[c] = (((((0 + L4) + L5) + L6) + L7) + L8 + L9) / 6 in float, Ll being
// audio_emb[l][i][c] of a (layers, 200, 768) encoder output.
void averageLayers(const float* audioEmb, int i, float* row);

// sqrt of the sum, in double over the channels in order, of each frame's
// squares, rounded to float.
void energies(const float* emb, int frames, float* energy);

// The gate of frame t, given energy[0 .. t] sorted ascending: 0 for the
// first 7 frames, else the 0.2 quantile, s[lo] + (s[hi] - s[lo]) * (p - lo)
// in float with p = t * 0.2.
float gateThreshold(const std::vector<float>& sorted, int t);

// cen[t] = emb[t] - mean of the frames up to t whose energy is strictly
// above their gate (the sum times 1 / max(count, 1), the product rounded
// first). Frames at or below the gate are centred but move nothing.
void centre(const float* emb, const float* energy, int frames, float* cen);

// cond[t]: centred rows t - 1 to t + 5, clamped to the clip, oldest first.
void conditions(const float* cen, int frames, float* cond);

}  // namespace le::fca
