#include "tests/paste/paste_reference.h"

#include <algorithm>
#include <cmath>

namespace le::test {

namespace {

int reflect(int i, int n) {
  if (i < 0) i = -i;
  if (i >= n) i = 2 * n - 2 - i;
  return i;
}

float clip255(float v) { return v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f; }

// Scaled, blurred and sharpened plane, each output computed on its own.
std::vector<float> sharpen(const float* src, float scale, int S, float amount, const std::vector<float>& g) {
  const int K = static_cast<int>(g.size()), pad = K / 2, P = S + K - 1;
  std::vector<float> plane(S * S), padded(P * P), hblur(P * P, 0.0f);
  for (int i = 0; i < S * S; ++i) plane[i] = src[i] * scale;
  for (int r = 0; r < P; ++r)
    for (int x = 0; x < P; ++x) padded[r * P + x] = plane[reflect(r - pad, S) * S + reflect(x - pad, S)];
  // Sums that would run past the buffer's end stay 0; only the first S
  // columns of a row are read.
  for (int j = 0; j + K - 1 < P * P; ++j) {
    float acc = 0.0f;
    for (int i = 0; i < K; ++i) acc += g[i] * padded[j + i];
    hblur[j] = acc;
  }
  std::vector<float> out(S * S);
  for (int r = 0; r < S; ++r)
    for (int x = 0; x < S; ++x) {
      float acc = 0.0f;
      for (int i = 0; i < K; ++i) acc += g[i] * hblur[(r + i) * P + x];
      out[r * S + x] = clip255(plane[r * S + x] * (amount + 1.0f) - acc * amount);
    }
  return out;
}

// Interpolates `taps` taps around (sxi - before, syi - before), skipping taps
// outside the square; zeroOutside adds zeros there instead (bilinear).
float sampleAt(const std::vector<float>& p, int S, const float* wx, const float* wy, int taps, int before, int sxi,
               int syi, bool zeroOutside) {
  float acc = 0.0f;
  for (int j = 0; j < taps; ++j) {
    const int yy = syi - before + j;
    const bool rowIn = yy >= 0 && yy < S;
    if (!rowIn && !zeroOutside) continue;
    float rowAcc = 0.0f;
    for (int i = 0; i < taps; ++i) {
      const int xx = sxi - before + i;
      const bool in = rowIn && xx >= 0 && xx < S;
      if (!in && !zeroOutside) continue;
      rowAcc += (in ? p[yy * S + xx] : 0.0f) * wx[i];
    }
    acc += rowAcc * wy[j];
  }
  return acc;
}

}  // namespace

void referencePaste(const std::vector<uint8_t>& mask, int S, float amount, const PasteTables& t, int mode,
                    const float* crop, float scale, const float* M, uint8_t* frame, int W, int H) {
  const float a = M[0], b = M[1], tx = M[2], c = M[3], d = M[4], ty = M[5];
  const double det = static_cast<double>(a) * d - static_cast<double>(b) * c;
  if (det == 0) return;
  const float n = static_cast<float>(S) + 3.0f;
  const float us[2] = {-4.0f, n};
  float xs[4], ys[4];
  for (int k = 0; k < 4; ++k) {
    const float u = us[k / 2], v = us[k % 2];
    xs[k] = tx + (a * u + b * v);
    ys[k] = ty + (c * u + d * v);
  }
  const int x0 = std::max(0, static_cast<int>(std::floor(*std::min_element(xs, xs + 4))));
  const int y0 = std::max(0, static_cast<int>(std::floor(*std::min_element(ys, ys + 4))));
  const int x1 = std::min(W - 1, static_cast<int>(std::ceil(*std::max_element(xs, xs + 4))));
  const int y1 = std::min(H - 1, static_cast<int>(std::ceil(*std::max_element(ys, ys + 4))));
  if (x0 > x1 || y0 > y1) return;
  const double inv = 1.0 / det;
  const double ia = inv * d, ib = inv * (-b), ic = inv * (-c), id = inv * a;
  const double itx = -(ia * tx + ib * ty), ity = -(ic * tx + id * ty);

  std::vector<float> planes[3];
  for (int ch = 0; ch < 3; ++ch) planes[ch] = sharpen(crop + ch * S * S, scale, S, amount, t.gauss);

  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x) {
      const int X = static_cast<int>(std::nearbyint((ib * y + itx) * 1024.0)) + 16 +
                    static_cast<int>(std::nearbyint(ia * x * 1024.0));
      const int Y = static_cast<int>(std::nearbyint((id * y + ity) * 1024.0)) + 16 +
                    static_cast<int>(std::nearbyint(ic * x * 1024.0));
      const int sxi = X >> 10, syi = Y >> 10, fx = (X >> 5) & 31, fy = (Y >> 5) & 31;
      if (sxi < -1 || sxi >= S || syi < -1 || syi >= S) continue;
      const auto m = [&](int yy, int xx) -> float {
        return (xx >= 0 && xx < S && yy >= 0 && yy < S) ? static_cast<float>(mask[yy * S + xx]) : 0.0f;
      };
      const float* bx = &t.bil[2 * fx];
      const float* by = &t.bil[2 * fy];
      const float mv = by[0] * (bx[0] * m(syi, sxi) + bx[1] * m(syi, sxi + 1)) +
                       by[1] * (bx[0] * m(syi + 1, sxi) + bx[1] * m(syi + 1, sxi + 1));
      const float alpha = std::nearbyint(mv) / 255.0f;
      if (alpha <= 0.0f) continue;
      for (int ch = 0; ch < 3; ++ch) {
        float v;
        if (mode == 0)
          v = sampleAt(planes[ch], S, &t.lanc[8 * fx], &t.lanc[8 * fy], 8, 3, sxi, syi, false);
        else if (mode == 1)
          v = sampleAt(planes[ch], S, &t.cubic[4 * fx], &t.cubic[4 * fy], 4, 1, sxi, syi, false);
        else
          v = sampleAt(planes[ch], S, bx, by, 2, 0, sxi, syi, true);
        uint8_t& dst = frame[(static_cast<size_t>(y) * W + x) * 3 + ch];
        dst = static_cast<uint8_t>(clip255(alpha * v + (1.0f - alpha) * static_cast<float>(dst)));
      }
    }
}

}  // namespace le::test
