// The whole teeth pass over a batch of frames without a session: the C entry
// points le_tessera_run and le_tessera_run_shift. They report into the
// caller's error buffer; nothing thrown below them crosses the boundary.
#include <cstring>
#include <string>

#include "le/error_buffer.h"
#include "le/le_tessera.h"
#include "tessera/teeth_pass.h"

namespace {

using le::boundary::writeErrorBuffer;

constexpr int32_t kNoShift = -10000;  // a shift pair starting with this derives the shift from pi

void runPass(const uint8_t* refs, int32_t n, const double* cent, const double* c_canon, const double* aperture,
             const int32_t* stampIn, const uint8_t* head_pt, int32_t head_pt_len, const char* head_json,
             const uint8_t* synth, const uint8_t* pi, const int32_t* shifts, int32_t n_frames, uint8_t* out_frames,
             uint32_t* out_skipped) {
  if (!refs || !cent || !c_canon || !aperture || !stampIn || !head_pt || !head_json ||
      (n_frames > 0 && (!synth || !pi || !out_frames || !out_skipped)))
    throw std::runtime_error("teeth: a required argument is null");
  le::GeometryStamp stamp;
  std::memcpy(stamp.v.data(), stampIn, sizeof(int32_t) * le::GeometryStamp::kFields);
  stamp.validate();
  le::BankData bank;
  bank.stamp = stamp;
  bank.n = n;
  if (n >= 1) {
    bank.refs.assign(refs, refs + static_cast<size_t>(n) * static_cast<size_t>(stamp.storedH()) *
                                      static_cast<size_t>(stamp.storedW()) * 3);
    bank.cent.assign(cent, cent + 2 * static_cast<size_t>(n));
    bank.aperture.assign(aperture, aperture + static_cast<size_t>(n));
  }
  bank.c_canon = {c_canon[0], c_canon[1]};
  const le::tessera::ServeConfig cfg = le::tessera::ServeConfig::fromHeadMemberJson(head_json);
  const le::tessera::HeadWeights head =
      le::tessera::loadHeadPt(head_pt, head_pt_len > 0 ? static_cast<size_t>(head_pt_len) : 0);
  le::tessera::TeethPass pass(bank, head, cfg);

  const size_t px = static_cast<size_t>(stamp.canvas_w()) * static_cast<size_t>(stamp.canvas_h());
  const size_t win = static_cast<size_t>(stamp.window_w()) * static_cast<size_t>(stamp.window_h()) * 3;
  le::tessera::FrameResult result;
  int64_t idx = 0;
  auto take = [&] {
    if (!result.skipped) std::memcpy(out_frames + static_cast<size_t>(idx) * win, result.rgb.data(), win);
    out_skipped[idx] = result.skipped ? 1 : 0;
    ++idx;
  };
  for (int32_t i = 0; i < n_frames; ++i) {
    const int32_t* shift = shifts && shifts[2 * static_cast<size_t>(i)] != kNoShift ? shifts + 2 * static_cast<size_t>(i)
                                                                                     : nullptr;
    if (pass.push(i, synth + static_cast<size_t>(i) * px * 3, pi + static_cast<size_t>(i) * px, shift, result)) take();
  }
  if (pass.flush(result)) take();
  if (idx != n_frames)
    throw std::runtime_error("teeth: emitted " + std::to_string(idx) + " of " + std::to_string(n_frames) + " frames");
}

}  // namespace

extern "C" {

LE_API int le_tessera_run_shift(const uint8_t* refs, int32_t n, const double* cent, const double* c_canon,
                                const double* aperture, const int32_t* stamp, const uint8_t* head_pt,
                                int32_t head_pt_len, const char* head_json, const uint8_t* synth, const uint8_t* pi,
                                const int32_t* shifts, int32_t n_frames, uint8_t* out_frames, uint32_t* out_skipped,
                                char* err, int32_t err_len) {
  writeErrorBuffer(err, err_len, "");
  try {
    runPass(refs, n, cent, c_canon, aperture, stamp, head_pt, head_pt_len, head_json, synth, pi, shifts, n_frames,
            out_frames, out_skipped);
    return 0;
  } catch (const std::exception& e) {
    writeErrorBuffer(err, err_len, *e.what() ? e.what() : "teeth: unknown failure");
  } catch (...) {
    writeErrorBuffer(err, err_len, "teeth: unknown failure");
  }
  return 1;
}

LE_API int le_tessera_run(const uint8_t* refs, int32_t n, const double* cent, const double* c_canon,
                          const double* aperture, const int32_t* stamp, const uint8_t* head_pt, int32_t head_pt_len,
                          const char* head_json, const uint8_t* synth, const uint8_t* pi, int32_t n_frames,
                          uint8_t* out_frames, uint32_t* out_skipped, char* err, int32_t err_len) {
  return le_tessera_run_shift(refs, n, cent, c_canon, aperture, stamp, head_pt, head_pt_len, head_json, synth, pi,
                              nullptr, n_frames, out_frames, out_skipped, err, err_len);
}

}  // extern "C"
