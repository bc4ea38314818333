// WarpDirector: the director's whole source warp in one node. Bilinear
// sampling of the 3-channel source with a second-order correction from the
// sampled second differences, through a store of 12 planes per source pixel
// (4 planes for each channel) so that the gather reads four contiguous groups
// per output pixel.
#pragma once

#include <cstdint>

namespace le {

// Values per source pixel in the plane store: element ((y*W + x)*12 + c*4 + k)
// holds plane k of channel c.
inline constexpr int64_t kWarpPlaneFloats = 12;

// Planes of rows rowBegin..rowEnd-1 of x [3,H,W] into planes [H*W*12].
void warpDirectorPlanesBand(const float* x, float* planes, int64_t W, int64_t H, int64_t rowBegin, int64_t rowEnd);

// Output rows rowBegin..rowEnd-1 of out [3,H,W] from the plane store and
// grid [H,W,2]. Every source row must have its planes.
void warpDirectorGatherBand(const float* planes, const float* grid, float* out, int64_t W, int64_t H,
                            int64_t rowBegin, int64_t rowEnd);

// The one-pass form of the same warp: each sampled pixel's planes computed
// on the fly, no store. Same bits as planes then gather.
void warpDirector(const float* x, const float* grid, float* out, int64_t W, int64_t H);
void warpDirectorBand(const float* x, const float* grid, float* out, int64_t W, int64_t H, int64_t rowBegin,
                      int64_t rowEnd);

// Names the kernel body: "scalar".
const char* warpBody();

}  // namespace le
