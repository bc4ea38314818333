// The one door to pixels: a source frame index and two keypoint rows in, a
// face crop out. The director graph's bytes are read into memory, edited on
// the wire in a fixed order (compose v2 splice, the warp block and warp fuse
// when asked for, GridSample to the engine's own kernel, student blend to
// Gemm, head cubic Resize to plain operators, source-cone hoist), and the
// ONNX Runtime session is built from the edited bytes. Everything in a bundle
// that this renderer can't serve exactly is refused here, at load.
//
// A hoisting renderer has one worker thread of its own, which computes the
// part of the graph that depends on the source frame alone, ahead of need,
// on one core; it ends with the renderer.
#pragma once

#include <memory>
#include <string>

#include "bundle/identity.h"
#include "bundle/manifest.h"

namespace le {

// Rows of a keypoint set the host feeds (le_host_kp_rows).
inline constexpr int kHostKpRows = 21;

class Renderer {
 public:
  // name selects the member "model_" + name + ".onnx"; threads <= 0 means
  // le::pool::threads(); ep is "" (ONNX Runtime's CPU provider here, where
  // there is no CoreML), "neon" (the fused convolution backend, for the m4b
  // graph at crop 512; any other graph falls back to ONNX Runtime with a
  // line on stderr), or "coreml[:cpu|gpu|ane|all]" (this build has no
  // CoreML: the native director's checks run and say why it is not used,
  // and the session falls back to the CPU provider).
  // manifest and identity are read, not owned: both must outlive the renderer.
  Renderer(const Manifest& manifest, Identity& identity, const std::string& name, int threads,
           const std::string& ep);
  ~Renderer();
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;

  // n rows (1 <= n <= batch()): si[b], and 63 floats per row in kpSource
  // and kpDriving. Returns batch() crops of three float planes R, G, B of
  // crop x crop each, row b at b * 3 * crop * crop; on the ONNX Runtime
  // road rows from n on repeat row n - 1, the fused backend leaves them as
  // they were. Valid until the next render on this object. One thread at a
  // time.
  const float* render(const int* si, const float* kpSource, const float* kpDriving, int n);

  int batch() const;
  int crop() const;
  // The execution provider in use: "neon" for the fused backend, else "cpu".
  const std::string& ep() const;
  // Why the native CoreML director was not used, or "".
  const std::string& directorNote() const;
  // "neon" when the fused convolution backend runs the frames, else "ort".
  std::string backend() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// dir + "/.coreml_cache/ort" + ONNX Runtime's version text ("unknown" if it
// reports none): two runtimes never share a compiled-model cache.
std::string coremlCacheDir(const std::string& dir);

}  // namespace le
