// DriverCursor: plays a frame sequence in place. A decoder thread
// decodes up to `look` frames ahead into a ring that also keeps `history`
// frames behind, and callers pull frames by index, mostly in order,
// sometimes jumping. A pull that lands in the ring costs no decode; only a
// real miss reaches the source as a seek, and each one is counted.
//
// The ring is allocated once, at construction; a pull allocates nothing.
// Failures of the decoder thread are kept (the first one only) and thrown to
// every later seek or pull, for the cursor's whole remaining life.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bundle/manifest.h"
#include "driver/source.h"

namespace le {

class DriverCursor {
 public:
  // The driver video of a bundle: the JPEG directory (manifest key
  // target_frames, default "target_frames") if its last frame exists, else
  // the movie member (target_frames_mp4, default "target_frames.mp4", or a
  // published output's driver_mp4). LE_DRIVER_PREFER_MP4=1 prefers an
  // existing movie. Throws a refusal when there is neither.
  static std::unique_ptr<DriverCursor> open(const Manifest& manifest, int look, int history);
  // The movie warp prior of a bundle (manifest key P_hevc, default
  // "P_hevc.mov"). Throws a refusal when the member is absent.
  static std::unique_ptr<DriverCursor> openPrior(const Manifest& manifest, int look, int history);
  // A cursor over any source. look below 1 becomes 1, history below 0
  // becomes 0; the ring has look + history + 1 slots.
  static std::unique_ptr<DriverCursor> over(std::unique_ptr<driver::Source> source, int look, int history);
  // The movie member open() would play; empty if it would read JPEGs or there
  // is none.
  static std::string mp4MemberPath(const Manifest& manifest);

  ~DriverCursor();  // stops and joins the decoder thread
  DriverCursor(const DriverCursor&) = delete;
  DriverCursor& operator=(const DriverCursor&) = delete;

  // Copies the frame at position() into out (frame_bytes bytes); returns its index.
  int pull(uint8_t* out);
  // A pointer into the ring to the frame at position(); sets *id.
  const uint8_t* pull(int* id);
  // The same, and the caller may change the frame in place; it is never
  // served again from the ring.
  uint8_t* pullMut(int* id);
  // Copies frame si into out; returns si.
  int pullAt(int si, uint8_t* out);
  // A pointer into the ring to frame si; sets *id (= si). It stays valid
  // until the decoder has written ring further frames after it.
  const uint8_t* pullAt(int si, int* id);
  uint8_t* pullMutAt(int si, int* id);
  // Repositions without taking: the next plain pull yields si.
  void seek(int si);

  int position() const;           // the frame a plain pull asks for
  uint64_t seeks() const;         // real seeks so far
  std::size_t residentBytes() const;  // the source's own memory + the ring
  int ringSlots() const;          // look + history + 1
  // Frames decoded ahead and not yet taken (write - read); an observer for
  // tests and statistics.
  int buffered() const;

 private:
  struct Impl;
  DriverCursor(std::unique_ptr<driver::Source> source, int look, int history);

  std::unique_ptr<Impl> impl;  // declared first: the fields below are read from its source

 public:
  // Copied from the source at construction.
  const int32_t nt;
  const int32_t w;
  const int32_t h;
  const std::size_t frame_bytes;
  const std::string backend;
};

}  // namespace le
