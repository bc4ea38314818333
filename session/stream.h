// The batch session behind the le_stream handle: its own context on the
// bundle, the frame-conditioned delta model, and the target keypoints the
// deltas move. A run takes a whole clip; one run at a time per handle.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_fca.h"
#include "le/le_stream.h"

struct le_stream {
  le_ctx* ctx = nullptr;  // owned
  le_fca* fca = nullptr;  // owned
  std::vector<float> xs_target;  // NT x 63
  int nt = 0, w = 0, h = 0, crop = 0;
  int lag = 0;     // frames of delta before the first frame put out
  float gain = 1;  // scale on the deltas

  le_stream() = default;
  ~le_stream();
  le_stream(const le_stream&) = delete;
  le_stream& operator=(const le_stream&) = delete;

  // Frames delivered; -1 with the sentence in *refusal.
  int run(const float* pcm, int n, le_stream_frame_cb callback, void* user, std::string* refusal);
};

namespace le {

// Opens the session, or returns null with the full sentence of a refusal in
// *refusal; throws for anything else.
std::unique_ptr<le_stream> createStream(const char* bundleDir, const char* w2vPath, int threads, int lag, float gain,
                                        std::string* refusal);

}  // namespace le
