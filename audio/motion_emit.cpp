// Frames out of the motion pipeline: the motion row of a frame, the walk
// through the source rows, and the keypoints rebuilt for the source frame.
// Only the motion row's expression moves the face, and only on the mouth
// and eye rows of the mask: pose and scale stay those of the source frame,
// so xd is the target row moved by what the expression changed, as the
// streaming model's xs + delta.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "audio/motion.h"

using namespace le::motion;

namespace {

// Keypoint rows the expression may move: eyes and mouth.
bool masked(int kpRow) {
  return kpRow == 6 || kpRow == 12 || kpRow == 14 || kpRow == 17 || kpRow == 19 || kpRow == 20;
}

// Degrees of 66 bin logits: the softmax expectation of the bin, 3 degrees a
// bin from -97.5.
float degreesOf(const float* logits) {
  float top = logits[0];
  for (int k = 1; k < 66; ++k) top = std::max(top, logits[k]);
  float e[66];
  float sum = 0.0f;
  for (int k = 0; k < 66; ++k) {
    e[k] = std::exp(logits[k] - top);
    sum += e[k];
  }
  float a = 0.0f;
  for (int k = 0; k < 66; ++k) a += (e[k] / sum) * static_cast<float>(k);
  return a * 3.0f - 97.5f;
}

float radians(float deg) { return (deg / 180.0f) * 3.1415927f; }

// Rows of the rotation of pitch a, yaw b, roll c (radians).
void rotation(float a, float b, float c, float R[3][3]) {
  const float sA = std::sin(a), cA = std::cos(a), sB = std::sin(b), cB = std::cos(b), sC = std::sin(c),
              cC = std::cos(c);
  R[0][0] = cB * cC;
  R[0][1] = cC * sB * sA - sC * cA;
  R[0][2] = sA * sC + cA * sB * cC;
  R[1][0] = cB * sC;
  R[1][1] = cA * cC + sA * sB * sC;
  R[1][2] = cA * sB * sC - sA * cC;
  R[2][0] = -sB;
  R[2][1] = sA * cB;
  R[2][2] = cA * cB;
}

}  // namespace

void le_motion::motionRowOf(int f, float* y) const {
  if (finalBuilt) {
    std::memcpy(y, finalRows.data() + static_cast<size_t>(f) * kMotionDim, kMotionDim * sizeof(float));
    return;
  }
  std::memcpy(y, res.data() + static_cast<size_t>(f) * kMotionDim, kMotionDim * sizeof(float));
  const int r0 = std::max(f - 1, 0), r1 = std::min(f + 1, resRows - 1);
  const float count = static_cast<float>(r1 - r0 + 1);
  for (int d = 0; d < kPoseDims; ++d) {
    float sum = 0.0f;
    for (int r = r0; r <= r1; ++r) sum += res[static_cast<size_t>(r) * kMotionDim + static_cast<size_t>(d)];
    y[d] = sum / count;
  }
  limit(y);
}

void le_motion::emitFrame(const float* y, int r, float* xs, float* xd) {
  const float* s = src.data() + static_cast<size_t>(r) * kSrcDim;
  if (!exp0Set) {
    std::memcpy(exp0.data(), y + kExpAt, kKp * sizeof(float));
    exp0Set = true;
  }
  float mix[kKp];
  for (int i = 0; i < kKp; ++i) {
    const float m = masked(i / 3) ? 1.0f : 0.0f;
    const float e = s[kSrcExp + i] + (y[kExpAt + i] - exp0[static_cast<size_t>(i)]) * rel;
    mix[i] = e * m + s[kSrcExp + i] * (1.0f - m);
  }
  const float pitch = degreesOf(s + kSrcPitch), yaw = degreesOf(s + kSrcYaw), roll = degreesOf(s + kSrcRoll);
  float R[3][3], Rd[3][3];
  rotation(radians(pitch), radians(yaw), radians(roll), R);
  rotation(radians(pitch + delta_pitch), radians(yaw), radians(roll), Rd);
  const float scale = s[kSrcScale];
  const float t[3] = {s[kSrcT], s[kSrcT + 1], 0.0f};
  for (int k = 0; k < 21; ++k) {
    const float* p = s + kSrcKp + 3 * k;
    for (int j = 0; j < 3; ++j) {
      const int i = 3 * k + j;
      const float rs = R[j][0] * p[0] + R[j][1] * p[1] + R[j][2] * p[2] + s[kSrcExp + i];
      const float rd = Rd[j][0] * p[0] + Rd[j][1] * p[1] + Rd[j][2] * p[2] + mix[i];
      xsLa[static_cast<size_t>(i)] = t[j] + scale * rs;
      xdLa[static_cast<size_t>(i)] = t[j] + scale * rd;
    }
  }
  runStitch();
  dump("xsla.bin", xsLa.data(), kKp, emitted > 0);
  dump("xdla.bin", st.data(), kKp, emitted > 0);
  const float* goal = target.data() + static_cast<size_t>(r) * kKp;
  for (int i = 0; i < kKp; ++i) {
    xs[i] = goal[i];
    const float moved = st[static_cast<size_t>(i)] - xsLa[static_cast<size_t>(i)];
    const float scaled = s_bridge * moved;
    xd[i] = goal[i] + scaled;
  }
}

int le_motion::pull(int* rows, float* xs, float* xd, int max) {
  advance();
  const int n = std::min(ready(), max);
  for (int i = 0; i < n; ++i) {
    const int f = emitted;
    motionRowOf(f, yRow.data());
    const int thisRow = row;
    if (rows) rows[i] = thisRow;
    if (rowLoop) {
      row = (nt + row + rowDir) % nt;
    } else {
      int next = row + rowDir;
      if (next < 0) {
        rowDir = 1;
        next = 1;
      } else if (next >= nt) {
        rowDir = -1;
        next = nt - 2;
      }
      row = std::clamp(next, 0, nt - 1);
    }
    float* xsOut = xs + static_cast<size_t>(i) * kKp;
    float* xdOut = xd + static_cast<size_t>(i) * kKp;
    emitFrame(yRow.data(), thisRow, xsOut, xdOut);
    dump("xs.bin", xsOut, kKp, f > 0);
    dump("xd.bin", xdOut, kKp, f > 0);
    ++emitted;
  }
  return std::max(n, 0);
}
