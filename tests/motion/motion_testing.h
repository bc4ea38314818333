// Helpers of the motion pipeline and batch-model tests: generated data,
// clips as the session feeds them, and graphs run in a plain ONNX Runtime
// session beside the engine's, for references.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <cstdint>
#include <string>
#include <vector>

#include "le/le_motion.h"

namespace le::test {

// The sample bundle without the streaming model, with the motion directory.
std::string speakingBundle();

// A generated clip as floats, each sample times 1/32768 (as a session pushes
// it), optionally cut to its first n samples.
std::vector<float> clipFloats(const std::string& name, size_t n = SIZE_MAX);

// An le_motion that is destroyed with the object.
struct MotionHandle {
  le_motion* m = nullptr;
  explicit MotionHandle(const std::string& dir, int threads = 1, const char* ep = nullptr);
  ~MotionHandle();
  MotionHandle(const MotionHandle&) = delete;
  MotionHandle& operator=(const MotionHandle&) = delete;
};

// Rows pulled from a pipeline: source rows, xs and xd.
struct Rows {
  std::vector<int> si;
  std::vector<float> xs, xd;
  size_t size() const { return si.size(); }
};

// Pulls what le_motion_avail offers, appending to rows; returns the count.
int pullAvailable(le_motion* m, Rows& rows);

// A graph in a plain session with one intra-op thread: inputs in graph
// order with the shapes given, output 0 returned.
class PlainGraph {
 public:
  explicit PlainGraph(const std::string& path);
  std::vector<float> run(const std::vector<std::vector<float>*>& inputs,
                         const std::vector<std::vector<int64_t>>& shapes);
  // Every output, in graph order.
  std::vector<std::vector<float>> runAll(const std::vector<std::vector<float>*>& inputs,
                                         const std::vector<std::vector<int64_t>>& shapes);

 private:
  Ort::Env env_;
  Ort::Session session_{nullptr};
  std::vector<std::string> in_, out_;
};

}  // namespace le::test
