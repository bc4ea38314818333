// The ring of a hoisted renderer: two boundary tensors, one that the current
// frame reads and one that the source-cone worker fills ahead of need, and
// the guess of which source frame comes next.
//
// The worker is one thread per renderer. It sleeps on a condition variable
// until hint asks for a frame, runs the prep (the cone, on one core) without
// holding the lock, and sleeps again: a renderer that renders nothing costs
// no processor time. acquire hands out a slot for the frame about to be
// rendered: a slot that holds it already, the prefetch that is computing it,
// or a prep run inline on the caller's thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <onnxruntime_cxx_api.h>

namespace le {

class SourceConeRing {
 public:
  struct Slot {
    int si = -1;  // the source frame whose boundary it holds, -1 when empty
    std::vector<float> data;
    Ort::Value value{nullptr};  // a tensor over data
  };

  // Fills slot.data with the boundary of source frame si; runs without the
  // lock, on the worker or on acquire's caller, never on both at once. May
  // throw: the text becomes the ring's sticky error.
  using Prep = std::function<void(int si, Slot& slot)>;

  // Two slots of elems floats each, wrapped as tensors of shape; starts the
  // worker. A worker that can't start throws std::system_error "thread
  // constructor failed".
  SourceConeRing(size_t elems, const std::vector<int64_t>& shape, Prep prep);
  // Stops the worker, after the prep it may be running.
  ~SourceConeRing();
  SourceConeRing(const SourceConeRing&) = delete;
  SourceConeRing& operator=(const SourceConeRing&) = delete;

  // The slot holding frame si, which stays unwritten until the next acquire.
  // Throws the sticky error of a failed prep.
  Slot& acquire(int si);
  // Asks the worker for frame si, unless a prefetch is pending, an error
  // stands, or a slot holds si. Only from acquire's thread.
  void hint(int si);

  // Prep runs so far, inline and on the worker.
  uint64_t prepRuns() const;

 private:
  void worker();
  // Called and returning with lock held; releases it for the prep.
  void runPrepL(int si, int slot, std::unique_lock<std::mutex>& lock);

  Prep prep_;
  std::vector<std::unique_ptr<Slot>> ring_;
  mutable std::mutex m_;
  std::condition_variable cv_;
  int pendingSi_ = -1, pendingSlot_ = -1;
  int slotInUse_ = -1;
  bool stop_ = false;
  std::string prepError_;
  uint64_t prepRuns_ = 0;
  std::thread thread_;  // last: started when everything above exists
};

// The guess of the next source frame from the frames rendered so far: a walk
// goes on in its direction, turns back at an end, or, once it has been seen
// to wrap from the last frame to 0, wraps.
struct SourceWalk {
  int lastSi = -1;
  int walkDir = +1;
  bool looped = false;

  // Records si and returns the frame predicted after it, of n frames.
  int next(int si, int n);
};

}  // namespace le
