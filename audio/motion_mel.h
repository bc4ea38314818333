// The log-mel spectrogram of one window of the motion pipeline, computed
// exactly as the student graph was trained on: reflect padding, a 512-point
// radix-2 decimation-in-time FFT in float with its own twiddle table and
// butterfly order (an FFT library would order its arithmetic differently and
// give other bits), magnitudes, and a bin-to-band matrix summed in bin order.
#pragma once

namespace le::motion {

constexpr int kFft = 512;
constexpr int kHop = 320;
constexpr int kSpectra = 21;
constexpr int kBins = kFft / 2 + 1;
constexpr int kMel = 80;
constexpr int kReflect = 256;

// Entry k of 256: cos and sin of k * -2 pi / 512, in float.
void fftTwiddles(float* re, float* im);

// In place over re and im (512 each): bit reversal, then butterflies from
// size 2 upward with twiddle stride 512 / size, t = w * b as four separate
// products, b = a - t, a = a + t.
void fft512(float* re, float* im, const float* twRe, const float* twIm);

// mel[m * 21 + t], 80 bands by 21 spectra, of a window's 6480 samples:
// reflected by 256 on each side, spectrum t from 512 samples at t * 320
// times the analysis window, magnitudes of bins 0 to 256, then
// logf(sum over bins of binmat[k * 80 + m] * mag[k] + 1e-8f). Scratch lives
// in storage of the calling thread, allocated once.
void logMel(const float* slice, const float* window, const float* binmat, const float* twRe, const float* twIm,
            float* mel);

}  // namespace le::motion
