#include "tests/compute/reference.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace le::test::ref {
namespace {

std::uint32_t bitsOf(float x) {
  std::uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

float fromBits(std::uint32_t b) {
  float x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

// Magnitude of a finite value rounded to a multiple of the half quantum of
// its binade (2^-24 below 2^-14), in double where every step is exact.
std::uint16_t roundMagnitude(double ax) {
  if (ax == 0.0) return 0;
  int e;
  std::frexp(ax, &e);  // ax in [2^(e-1), 2^e)
  const int binade = std::max(e - 1, -14);
  const double quantum = std::ldexp(1.0, binade - 10);
  const double r = std::nearbyint(ax / quantum) * quantum;
  if (r >= 65536.0) return 0x7c00;
  if (r < std::ldexp(1.0, -14)) return static_cast<std::uint16_t>(r / std::ldexp(1.0, -24));
  int er;
  std::frexp(r, &er);
  const int exp = er - 1;
  const double mant = r / std::ldexp(1.0, exp - 10) - 1024.0;
  return static_cast<std::uint16_t>(((exp + 15) << 10) | static_cast<int>(mant));
}

}  // namespace

std::uint16_t f16(float x) {
  const std::uint16_t sign = std::signbit(x) ? 0x8000 : 0;
  if (std::isnan(x)) return static_cast<std::uint16_t>(sign | 0x7e00 | ((bitsOf(x) >> 13) & 0x3ff));
  if (std::isinf(x)) return static_cast<std::uint16_t>(sign | 0x7c00);
  return static_cast<std::uint16_t>(sign | roundMagnitude(std::fabs(static_cast<double>(x))));
}

std::uint16_t f16NoNaN(float x) {
  if (std::isnan(x)) return std::signbit(x) ? 0xfc00 : 0x7c00;
  return f16(x);
}

float wide(std::uint16_t h) {
  const bool neg = (h & 0x8000) != 0;
  const int e = (h >> 10) & 31;
  const int m = h & 1023;
  if (e == 31) {
    if (m == 0) return neg ? -INFINITY : INFINITY;
    return fromBits((neg ? 0x80000000u : 0u) | 0x7fc00000u | (static_cast<std::uint32_t>(m) << 13));
  }
  const double mag = e == 0 ? std::ldexp(static_cast<double>(m), -24)
                            : std::ldexp(static_cast<double>(1024 + m), e - 25);
  return static_cast<float>(neg ? -mag : mag);
}

void f32ToF16(const float* src, std::uint16_t* dst, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = f16(src[i]);
}

void f16ToF32(const std::uint16_t* src, float* dst, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = wide(src[i]);
}

void roundF16Mul(const float* a, const float* b, float* out, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) out[i] = wide(f16(a[i])) * b[i];
}

namespace {

float meanAbsDiff(const std::uint16_t* a, const std::uint16_t* b, std::size_t n, std::size_t i) {
  float d[3];
  for (std::size_t c = 0; c < 3; ++c) {
    const float diff = wide(a[c * n + i]) - wide(b[c * n + i]);
    d[c] = std::fabs(wide(f16(diff)));
  }
  const float s = (d[0] + d[1]) + d[2];
  return wide(f16(s / 3.0f));
}

}  // namespace

float retrieveTermPooled(const std::uint16_t* a, const std::uint16_t* b, const std::uint16_t* w,
                         std::size_t n) {
  float acc = 0.0f;
  for (std::size_t i = 0; i < n; ++i) {
    const float m = meanAbsDiff(a, b, n, i);
    const float t = wide(f16(m * wide(w[i])));
    acc += t;
  }
  return acc;
}

float retrieveTermExactRange(const std::uint16_t* a, const std::uint16_t* b, const float* w,
                             std::size_t n, std::size_t i0, std::size_t i1) {
  float acc = 0.0f;
  for (std::size_t i = i0; i < i1; ++i) {
    const float m = meanAbsDiff(a, b, n, i);
    const float t = w[i] == 0.0f ? 0.0f : w[i] * m;
    acc += t;
  }
  return acc;
}

void rgb8ToPlanarF16(const std::uint8_t* rgb, std::uint16_t* dst, std::size_t stride,
                     std::size_t n) {
  for (std::size_t c = 0; c < 3; ++c) {
    for (std::size_t i = 0; i < n; ++i) {
      dst[c * stride + i] = f16(static_cast<float>(rgb[3 * i + c]) / 255.0f);
    }
  }
}

void quantU8Strided3(const float* src, std::uint8_t* dst, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    float v = src[i];
    if (std::isnan(v) || v < 0.0f) v = 0.0f;
    if (v > 1.0f) v = 1.0f;
    const float r = v * 255.0f;
    dst[3 * i] = static_cast<std::uint8_t>(std::nearbyint(r));
  }
}

void conv3x3Range(const float* in, int cin, int H, int W, const float* weights, const float* bias,
                  int cout, float* out, int lo, int hi) {
  for (int k = lo; k < hi; ++k) {
    const int n = k / cout;
    const int oc = k % cout;
    for (int y = 0; y < H; ++y) {
      for (int x = 0; x < W; ++x) {
        float acc = 0.0f;
        for (int ky = 0; ky < 3; ++ky) {
          const int iy = y + ky - 1;
          if (iy < 0 || iy >= H) continue;
          for (int kx = 0; kx < 3; ++kx) {
            const int ix = x + kx - 1;
            if (ix < 0 || ix >= W) continue;
            for (int ic = 0; ic < cin; ++ic) {
              const float v = in[((static_cast<std::size_t>(n) * cin + ic) * H + iy) * W + ix];
              const float wt = weights[((static_cast<std::size_t>(oc) * cin + ic) * 3 + ky) * 3 + kx];
              acc += v * wt;
            }
          }
        }
        out[(static_cast<std::size_t>(k) * H + y) * W + x] = acc + bias[oc];
      }
    }
  }
}

void yuv420RowToRgb24(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
                      int width, int chromaStep, std::uint8_t* rgb) {
  const auto clip = [](int t) { return static_cast<std::uint8_t>(std::clamp(t, 0, 255)); };
  for (int x = 0; x < width; ++x) {
    const int Y = y[x];
    const int D = u[(x >> 1) * chromaStep] - 128;
    const int E = v[(x >> 1) * chromaStep] - 128;
    const int c = 298 * Y - 4640;
    rgb[3 * x] = clip((c + 409 * E) >> 8);
    rgb[3 * x + 1] = clip((c - 100 * D - 208 * E) >> 8);
    rgb[3 * x + 2] = clip((c + 516 * D) >> 8);
  }
}

}  // namespace le::test::ref
