// The le_stream C family on the boundary road. The refusals of the context
// and the delta model carry their own family's text.
#include <string>

#include "le/boundary.h"
#include "le/le_stream.h"
#include "session/stream.h"

using le::boundary::Family;

extern "C" {

LE_API le_stream* le_stream_create(const char* bundle_dir, const char* w2v_path, int threads, int lag, float gain) {
  le::boundary::clear(Family::Stream);
  if (!bundle_dir) {
    le::boundary::storeFixed(Family::Stream, "le_stream_create: NULL bundle_dir");
    return nullptr;
  }
  return le::boundary::run(Family::Stream, "le_stream_create", static_cast<le_stream*>(nullptr), [&] {
    std::string refusal;
    std::unique_ptr<le_stream> s = le::createStream(bundle_dir, w2v_path, threads, lag, gain, &refusal);
    if (!s) le::boundary::storeFixed(Family::Stream, refusal.c_str());
    return s.release();
  });
}

LE_API void le_stream_destroy(le_stream* s) { delete s; }

LE_API const char* le_stream_last_error(void) { return le::boundary::errorOf(Family::Stream).c_str(); }

LE_API int le_stream_width(const le_stream* s) { return s ? s->w : 0; }

LE_API int le_stream_height(const le_stream* s) { return s ? s->h : 0; }

LE_API int le_stream_run(le_stream* s, const float* pcm, int n, le_stream_frame_cb callback, void* user) {
  le::boundary::clear(Family::Stream);
  if (!s || n < 0 || (n > 0 && !pcm)) {
    le::boundary::storeFixed(Family::Stream, "le_stream_run: bad args");
    return -1;
  }
  return le::boundary::run(Family::Stream, "le_stream_run", -1, [&] {
    std::string refusal;
    const int r = s->run(pcm, n, callback, user, &refusal);
    if (r < 0) le::boundary::storeFixed(Family::Stream, refusal.c_str());
    return r;
  });
}

}  // extern "C"
