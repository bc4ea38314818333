// The live session behind the le_utt handle.
//
// Threads: the worker (`run`) makes every decision and owns the row store
// and both renderers; `warm` builds the motion model and the chunk renderer
// once; `dispatchLoop` calls the motion model; `pasteLoop` composites frames
// when the paste is pipelined; `tessLoop` runs the teeth pass on the
// pipelined road once teeth are attached. Host threads push, pull,
// interrupt and attach.
//
// The teeth pass belongs to one actor: the worker on the inline road, the
// teeth thread on the pipelined one. It alone touches the pass and the held
// frame. An attach builds the new pass on the host's thread and hands it
// over under `m`; the actor adopts it at its next frame, so a pass is never
// swapped or destroyed under a stage that is using it. The teeth counters and
// fault that hosts read are written under `m` on both roads.
//
// Locks, outermost first: `m` (everything host threads touch), `playout_m`
// (the host's position), the clock's own mutex. `job_m` guards the job slot
// and is never held with another lock. No stage holds `m` across render or
// paste work, and every wait on a full queue is bounded at 2 ms and re-tests
// the stop flags and the generation, which is how an interrupt or a destroy
// reaches a stage blocked on a full queue.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "le/le_utt.h"
#include "session/motion_family.h"
#include "session/playout_clock.h"
#include "tessera/teeth_pass.h"

struct le_ctx;

namespace le {
class Renderer;
namespace tessera {
class StreamBorrow;
}
}  // namespace le

namespace le::session {

inline constexpr int kKp = 63;              // floats of a keypoint row
inline constexpr int kFrameSamples = 640;   // 40 ms at 16 kHz
inline constexpr int kQueueSlots = 8;       // the output queue
inline constexpr int kPasteDepth = 8;       // the paste stage's queue
inline constexpr int kTessDepth = 2;        // the teeth stage's queue, and its share of the paste queue
inline constexpr int kRowCap = 32;          // the row store
inline constexpr double kWaitMs = 2.0;      // the longest any wait lasts before re-testing

enum FrameType : int32_t { kIdle = 0, kSpeech = 1, kRamp = 2 };
enum State : int32_t { kStateIdle = 0, kStateOnset = 1, kStateSpeech = 2, kStateRamp = 3 };

// A frame's driven keypoints, or zeros when it has none.
inline void copyKd(std::array<float, kKp>& to, const float* kd) {
  if (kd)
    std::copy(kd, kd + kKp, to.begin());
  else
    to.fill(0.0f);
}

// One finished frame of the output queue; `rgb` keeps its allocation.
struct Slot {
  std::vector<uint8_t> rgb;
  uint64_t seq = 0;
  int32_t type = kIdle;
  int32_t si = 0;
  int32_t ordinal = -1;
  std::array<float, kKp> kd{};
  int64_t sample = -1;
  bool landed = false;
};

// One frame on its way to the paste stage. Jobs move between the worker's
// staging job, the ring and the paste thread by swapping, so their crop
// buffers are allocated once and never per frame.
struct PasteJob {
  std::vector<float> crop;
  bool has_crop = false;
  int32_t type = kIdle;
  int32_t si = 0;
  int32_t ordinal = -1;
  std::array<float, kKp> kd{};
  uint64_t gen = 0;
  double enq_ms = 0.0;
  int64_t sample = -1;
  double pushed_ms = 0.0;
};

// A bounded FIFO of jobs over a fixed ring of kPasteDepth; a queue with a
// smaller bound tests size() against it.
class JobRing {
 public:
  int size() const { return n_; }
  bool full() const { return n_ == kPasteDepth; }
  // Swaps `job` into the back; `job` receives the slot's old buffers.
  void pushSwap(PasteJob& job);
  // Swaps the front into `job` (whose buffers go to the ring).
  void popSwap(PasteJob& job);
  void clear() { first_ = n_ = 0; }

 private:
  std::array<PasteJob, kPasteDepth> ring_;
  int first_ = 0;
  int n_ = 0;
};

}  // namespace le::session

struct le_utt {
  using PasteJob = le::session::PasteJob;

  le_utt(le_ctx* ctx, const le_utt_opts& opts);
  ~le_utt();
  le_utt(const le_utt&) = delete;
  le_utt& operator=(const le_utt&) = delete;

  // ---- host side (le/utt.cpp calls these) ----
  int ready(std::string* why);  // 1 warm, 0 warming, -1 failed (why: the model's error)
  void pushAudio(const int16_t* pcm, int n);
  void endUtterance();
  void interrupt();
  int framesAvailable();
  int pullFrame(uint8_t* out, size_t cap, le_utt_frame_info* info);  // 1, 0 empty, -1 short buffer
  void getStats(le_utt_stats* out);
  int renderStatus(char* out, int out_len, uint64_t* count);
  void setPlayoutPosition(int64_t played_samples);
  int playoutStats(int64_t* skipped, int64_t* sample, double* latency_ms);
  void noteRenderFail(const char* stage, const char* what, bool fatal);
  // Teeth: attach throws on a refusal and leaves the session as it was.
  void tesseraAttach(const uint8_t* bank, int32_t n_donors, const double* cent, const double* c_canon,
                     const double* aperture, const int32_t* stamp, const uint8_t* head_pt, int32_t head_pt_len,
                     const char* head_json, const char* manifest_json);
  int tesseraStats(uint64_t* ok, uint64_t* refused, char* err, int err_len);
  int tesseraGeometry(char* out, int out_len);
  int tesseraSynthW(double* mean, double* max, uint64_t* frames);

  // ---- configuration, fixed at construction ----
  le_ctx* ctx;
  std::string motion_dir, motion_ep, steady_model;
  int threads = 1;
  int eager = -1;
  int ramp_end_frames = 6, ramp_interrupt_frames = 4;
  bool hybrid = false;
  double silence_ms = 600.0;
  bool is_a2x = false;
  bool pipeline_paste = false;
  const le::session::MotionFamily* fam = nullptr;
  std::vector<float> xs_target;  // NT x 63, or empty: no ramps
  int nt = 0, W = 0, H = 0, crop = 0;
  size_t frame_bytes = 0;

 private:
  // ---- threads ----
  void shutdown();  // stops and joins every thread, destroys the model
  void run();
  void warm();
  void dispatchLoop();
  void pasteLoop();
  void tessLoop();

  // ---- the worker pass and its speech path ----
  void startUtterance(int64_t start_sample);
  void submitJob(void* model, int eager_now);
  bool collectJob();
  bool renderSpeech(int n, le::Renderer* steady);
  void completeUtterance();
  bool produceRamp();
  void handleInterrupt();
  void printSkipLine(const char* how);
  int nextSi(int si) const { return nt < 1 ? 0 : (si + 1) % nt; }

  // ---- the frame pipeline ----
  // pushed_ms: when a speech frame was told to the playout clock, 0 if it
  // wasn't; the teeth roads re-tell it when the held frame goes on.
  bool enqueue(const float* crop, int type, int si, int ordinal, const float* kd, double* ms, int64_t sample,
               double pushed_ms = 0.0);
  bool enqueueRaw(const float* crop, int type, int si, int ordinal, const float* kd, double* ms, int64_t sample);
  bool enqueuePipe(const float* crop, int type, int si, int ordinal, const float* kd, double* ms, int64_t sample);
  bool enqueueTess(const float* crop, int type, int si, int ordinal, const float* kd, double* ms, int64_t sample,
                   double pushed_ms);
  // Either stage queue: a copy of the crop into the worker's staging job,
  // then a bounded wait for room.
  bool enqueueStage(const float* crop, int type, int si, int ordinal, const float* kd, double* ms, int64_t sample,
                    double pushed_ms, le::session::JobRing& queue, int bound, std::condition_variable& cv);
  bool pasteInto(const PasteJob& job);
  bool composeSlot(le::session::Slot& slot, const float* crop, int si, int type, int ordinal, const float* kd,
                   int64_t sample);
  bool landedSampleAtPull(int type, int ordinal);
  void publishSlot(int type, int ordinal);
  void printStageReport();

  // ---- the teeth stage (session/utterance_teeth.cpp) ----
  bool enqueueTeethInline(std::unique_ptr<le::tessera::StreamBorrow> fresh, const float* crop, int type, int si,
                          int ordinal, const float* kd, double* ms, int64_t sample, double pushed_ms);
  std::unique_ptr<le::tessera::StreamBorrow> takeAttachedLocked();
  void adoptPass(std::unique_ptr<le::tessera::StreamBorrow> fresh);
  void tessStage(PasteJob& job);
  bool tessEmitHeld(double* ms);
  bool tessEmitHeldP();
  bool tessDrain(double* ms);
  bool tessDrainP();
  void tessDiscardHeld();
  bool tessEmitCommon();  // the steps both roads share; false on a refusal or fault
  bool tessPush(const float* crop, const float* kd, bool& got);
  bool tessFlush(bool& got);
  void parkHeld(const float* crop, int type, int si, int ordinal, const float* kd, int64_t sample, double pushed_ms);
  bool pushPaste(bool has_crop, int type, int si, int ordinal, const float* kd, uint64_t gen, double enq_ms,
                 int64_t sample);
  void tessFault(const char* what);

  // ---- guarded by m ----
  std::mutex m;
  std::condition_variable wake, paste_cv;
  std::vector<float> audio;
  bool end_requested = false;
  uint64_t interrupt_gen = 0;
  bool stop = false;
  bool paste_stop = false;
  double last_push_ms = 0.0, first_push_ms = 0.0;
  bool push_started = false;
  int64_t total_pushed = 0;
  void* model = nullptr;
  le::Renderer* steady_pub = nullptr;  // the chunk renderer, once warm-up publishes it
  bool warm_failed = false;
  std::string warm_error;
  uint64_t render_failures = 0;
  std::string render_status;
  bool render_fatal = false;
  bool have_last = false;
  int last_type = 0, last_si = 0;
  std::array<float, le::session::kKp> last_kd{};
  int64_t last_sample = -1;
  double utt_first_push_ms = 0.0;  // written by the worker under m: the paste stage reads it
  // The output queue.
  std::array<le::session::Slot, le::session::kQueueSlots> slots;
  uint64_t tail = 0, head = 0, next_seq = 0;
  le::session::JobRing paste_q;
  le_utt_stats stats{};
  // Teeth, as hosts see them. An attach leaves its pass in tess_next for the
  // actor to adopt.
  std::condition_variable tess_cv;
  bool tess_stop = false;
  bool tess_armed = false;
  bool tess_threaded = false;
  std::unique_ptr<le::tessera::StreamBorrow> tess_next;
  std::string tess_geometry;
  uint64_t tess_ok = 0, tess_refused = 0;
  std::string tess_error;
  bool tess_faulted = false;
  le::tessera::SynthWeightStats tess_synth{};
  le::session::JobRing tess_q;
  // Stage sums.
  double a_sum_ms = 0.0, a_wait_ms = 0.0;
  int64_t a_frames = 0;
  double c_sum_ms = 0.0;  // paste actor only
  int64_t c_jobs = 0;     // paste actor only
  int64_t b_jobs = 0;      // teeth actor only
  double b_sum_ms = 0.0;   // teeth actor only
  double deliver_sum_ms = 0.0;
  int64_t deliver_frames = 0;

  // ---- worker only ----
  uint64_t seen_gen = 0;
  std::atomic<int32_t> state{le::session::kStateIdle};  // read by get_stats without ordering
  int idle_si = 0;
  int onset_si = -1;
  bool in_utterance = false, ended = false, first_rendered = false;
  int next_ordinal = 0;
  int64_t utt_start_sample = 0;
  int64_t rendered = 0, skipped_frames = 0;
  int ramp_left = 0, ramp_total = 0;
  std::array<float, le::session::kKp> ramp_delta{};
  std::array<float, le::session::kKp> prev_kd{};
  int prev_si = 0;
  bool job_in_flight = false, need_reset = false, finish_sent = false;
  uint64_t job_gen = 0;
  int rows_pulled = 0, rows_backlog = 0, rows_total = -1;
  int hybrid_high = 0;
  int eager_sent = -1;
  std::vector<float> acc_audio;
  int row_read = 0, row_write = 0;
  std::vector<int> row_si;
  std::vector<float> row_xs, row_xd;
  double wait_ms = 0.0;
  PasteJob stage_job;                   // the worker's staging job for the paste queue
  std::vector<float> ramp_ks, ramp_kd;  // scratch rows of a ramp frame
  std::unique_ptr<le::Renderer> steady; // owned here; the worker uses it once published

  // ---- the job slot, under job_m ----
  std::mutex job_m;
  std::condition_variable job_cv;
  bool job_pending = false, job_done = false, job_stop = false;
  void* job_model = nullptr;
  std::vector<float> job_audio;
  bool job_reset = false, job_finish = false;
  int job_si = 0, job_dir = 1, job_eager = 0, job_capacity = 0;
  int job_got = 0, job_backlog = 0, job_total = -1;
  std::vector<int> job_row_si;
  std::vector<float> job_row_xs, job_row_xd;

  // ---- playout ----
  le::PlayoutClock clock{le::session::kFrameSamples, 16000};
  std::atomic<bool> playout_active{false};
  std::mutex playout_m;
  int64_t host_position = 0;
  double position_at_ms = 0.0;
  bool have_position = false;
  int64_t base_sample = 0;

  // ---- the paste thread's own ----
  PasteJob paste_job;

  // ---- the teeth actor's own: the worker inline, the teeth thread when
  // pipelined ----
  std::unique_ptr<le::tessera::StreamBorrow> tess;
  le::tessera::FrameResult tess_result;
  bool held = false;
  std::vector<float> held_crop;
  int held_type = 0, held_si = 0, held_ordinal = -1;
  std::array<float, le::session::kKp> held_kd{};
  int64_t held_sample = -1;
  double held_pushed_ms = 0.0, held_at_ms = 0.0;
  uint64_t held_gen = 0;
  double held_enq_ms = 0.0;
  uint64_t tess_gen = 0;
  PasteJob tess_job;        // the teeth thread's job in hand
  PasteJob tess_out_job;    // the teeth thread's staging job for the paste queue

  std::thread worker_thread, warm_thread, dispatch_thread, paste_thread, tess_thread;
};
