// The frame-conditioned delta model of the batch session behind the le_fca
// handle: a whole clip at once, in one blocking call. The 8 s speech encoder
// gives each frame six of its layers averaged into 768 features; these are
// centred against a running mean of the frames loud enough to pass an energy
// gate, and a small autoregressive graph (fca_stream.onnx) turns each
// frame's seven neighbouring centred rows, its own last output and a hidden
// state into 63 keypoint deltas. Nothing of a call stays in the object.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <memory>

struct le_fca {
  Ort::Env env;
  Ort::SessionOptions options;
  Ort::Session w2v{nullptr};
  Ort::Session dec{nullptr};
  Ort::MemoryInfo memory{nullptr};
  Ort::RunOptions runOptions;

  // Frames written to out (63 floats each) for n >= 1 samples; the caller
  // has checked that maxFrames holds them.
  int deltas(const float* pcm, int n, float* out);
};

namespace le {

// Opens both graphs as le_fca_create does; throws ONNX Runtime's reason.
std::unique_ptr<le_fca> createFca(const char* w2vPath, const char* fcaPath, int threads);

}  // namespace le
