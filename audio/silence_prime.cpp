// Priming the decoder with silence: its state after n frames of nothing
// said, so that an utterance starts from rest rather than from zeros the
// model never saw in training. Computed once per object at creation; the
// silent 8 s output behind it once per process.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>

#include "audio/a2x.h"
#include "audio/a2x_ort.h"
#include "audio/w2v_shared.h"
#include "director/diag.h"

using namespace le::a2x;

namespace le {

void prime_silence(le_a2x* a, int frames) {
  const int n = std::min(frames, kW2vWindowFrames);
  if (n < 1) return;
  try {
    {
      std::lock_guard<std::mutex> lock(g_zeroemb_mtx);
      if (g_zeroemb.empty()) {
        Ort::Session& s = w2v8(a);
        std::vector<float> zeros(kW2vWindowSamples, 0.0f);
        const Ort::Value out = w2v8Run(s, zeros);
        const float* emb = out.GetTensorData<float>();
        g_zeroemb.assign(emb, emb + kZeroEmbFloats);
      }
    }
    // Filled once and never changed again: read without the lock.
    std::vector<float> feats(static_cast<size_t>(n) * kFeatFloats);
    for (int i = 0; i < n; ++i) w2v8Frame(g_zeroemb.data(), i, feats.data() + static_cast<size_t>(i) * kFeatFloats);
    std::vector<Ort::Value> enc = a->runEncoder(feats.data(), 0, n);
    const float* rows = enc[0].GetTensorData<float>();
    std::vector<float> prev(kKp, 0.0f), hs(static_cast<size_t>(a->h), 0.0f);
    for (int t = 0; t < n; ++t) {
      a->decodeStep(rows + static_cast<size_t>(t) * a->h, prev.data(), hs.data());
      prev = a->decM;
      hs = a->decHOut;
    }
    a->primedPrev = std::move(prev);
    a->primedH = std::move(hs);
    std::fprintf(diag_stream(), "[le_a2x] silence-primed AR state cached (%d frames)\n", n);
  } catch (const std::exception& e) {
    a->primedPrev.clear();
    a->primedH.clear();
    std::fprintf(stderr, "[le_a2x] silence-prime failed (%s) -- legacy zero state\n", oneLine(e.what()).c_str());
  }
}

}  // namespace le
