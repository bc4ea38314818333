// The streaming audio-to-keypoints model behind the le_a2x handle: a speech
// feature frontend, a banded encoder over a sliding window of feature frames
// and a frame-by-frame autoregressive decoder. Each stage advances by itself
// and keeps only what the next one still needs; frame counters are absolute
// within the utterance, and the *Base marks say how much has been erased
// from the front of each buffer. No lock: one thread at a time per object.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/a2x_schedule.h"

struct le_a2x {
  // Configuration, fixed at creation.
  int threads = 1;  // intra-op threads of the encoder and decoder
  int h = 256;      // encoder width, position table width, decoder state
  int window = -1;  // look-ahead per attention layer, frames
  int left = -1;    // look-back per attention layer, frames
  int layers = 6;
  int windowLayers = 0, leftLayers = 0;  // the encoder's reach ahead and behind
  int R = 12;                            // frames of look-ahead of the short window
  int lag = 12;                          // frames the live path holds back for the frontend
  bool shortWindow = false;              // served by the trunk/head pair, else the 8 s graph
  std::string bundleDir;                 // resolved bundle directory
  std::string w2vPath;                   // $W2V_ONNX at creation
  std::vector<float> pos;                // P rows of h
  int P = 0;
  std::vector<float> mean, stdev;  // 63 each
  std::vector<float> xs;           // NT rows of 63
  int NT = 0;
  std::string encOut0, encOut1;
  bool widthFlag = false;  // the encoder has a second output (wn)

  Ort::Env env{nullptr};
  Ort::SessionOptions options{nullptr};
  Ort::Session enc{nullptr};
  Ort::Session dec{nullptr};
  Ort::Session* w2v8Session = nullptr;  // the shared 8 s graph, once fetched

  // The live stream.
  std::vector<float> audio;  // sample i of the utterance at i - audioBase
  int64_t audioBase = 0;
  bool finished = false;
  int pulled = 0;
  int rowStart = 0, rowDir = 1, rowLoop = 1;
  int eager = -1;
  std::vector<float> feats;  // frames from featBase on, kFeatFloats each
  int featFed = 0;           // the frontend's next input position, frames
  int featDone = 0;          // feature frames complete
  int featBase = 0;
  std::vector<float> band;  // encoder rows from bandBase on, h each
  std::vector<float> wn;    // wn values from bandBase on
  int encoded = 0;
  int bandBase = 0;
  std::vector<float> deltas;  // frames from deltaBase on, 63 each
  int deltaBase = 0;
  std::vector<float> prev;    // last m, 63
  std::vector<float> hState;  // last h_out, h
  int decoded = 0;
  std::vector<float> primedPrev, primedH;  // start state after silence; empty if none

  // wn of the last whole-clip run, for le_a2x_deltas_wn.
  std::vector<float> clipWn;

  // Working memory, allocated once and grown.
  std::vector<float> window32k, window128k;  // frontend input windows
  std::vector<float> headIn;                 // 8 rows of 640 trunk channels
  std::vector<float> attnBuf, posBuf;        // encoder inputs
  std::vector<float> clipFeats, clipBand, clipDeltas;  // whole-clip stages
  // Decoder tensors over fixed buffers, bound once.
  std::vector<float> decCtx, decPrev, decH, decM, decHOut;
  std::vector<Ort::Value> decInputs, decOutputs;
  bool decOutputsBound = false;

  // Samples pushed so far, and what the schedule lets the stages use of them.
  int64_t samples() const { return audioBase + static_cast<int64_t>(audio.size()); }
  int64_t usable() const { return le::a2x::usableSamples(samples(), finished); }
  int audioFrames() const { return le::a2x::audioFramesOf(usable()); }
  int ready() const { return le::a2x::readyFrames(audioFrames(), finished, windowLayers, lag); }
  int rowAt(int64_t f) const { return le::a2x::rowOf(f, rowStart, rowDir, rowLoop, NT); }

  void reset(int start, int dir, int loop);
  void push(const float* pcm, int n);
  int avail();
  int total() const;
  int pull(int* rows, float* xsOut, float* xdOut, float* wnOut, int max);
  int deltasClip(const float* pcm, int n, float* out, int maxFrames);

  // Advances the stages to at most `target` frames; a failure is stored as
  // the family's last error and the frames simply do not advance.
  void extend(int target);

  // Stages, each throwing a full sentence.
  void extendOrThrow(int target);
  bool frontendStep();   // false when the next feature frames must wait for audio
  bool windowBlock();    // short-window frontend, one block of 8 frames
  bool w2v8LiveStep();   // 8 s frontend, one window
  void w2v8Clip(const float* pcm, int n, int frames);  // 8 s frontend over a whole clip
  void encodeLive(int t);
  void decodeLive(int t);
  void trim();

  // One encoder run over frames lo .. lo+L-1 of `feat` (L frames from lo):
  // outputs as the graph gives them.
  std::vector<Ort::Value> runEncoder(const float* feat, int lo, int L);
  // One decoder step on ctx_t, prev and h; m lands in decM, h_out in decHOut.
  void decodeStep(const float* ctx, const float* prevIn, const float* hIn);
  void bindDecoder();
};

namespace le {

// Builds an object as le_a2x_create does; throws the refusal sentence.
std::unique_ptr<le_a2x> createA2x(const char* bundle, int threads);

// The object's 8 s session, fetched on first use; throws if it won't load.
Ort::Session& w2v8(le_a2x* a);

// Replaces the decoder's zero start state by its state after `frames`
// frames of silence (at most 200). A failure is logged and leaves the zero
// state.
void prime_silence(le_a2x* a, int frames);

// Empties a buffer; one that grew past 16 MiB gives its memory back, so that
// one long utterance or clip does not pin it for the life of the object.
void clearBuffer(std::vector<float>& v);

// Stream read behind what the trims kept: a full sentence naming the stage.
[[noreturn]] void failBehind(const char* stage);

// One run of the 8 s graph over a window of 128000 samples as it stands;
// the output (12, 200, 768) is owned by the returned value.
Ort::Value w2v8Run(Ort::Session& s, std::vector<float>& window);

// Feature frame f of an 8 s output (layer, frame, channel) through the fp16
// step, written to dst (kFeatFloats).
void w2v8Frame(const float* out, int frame, float* dst);

}  // namespace le
