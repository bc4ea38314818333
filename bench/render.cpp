// render: frames per second of the engine's renderer on a generated director
// graph at crop 256 and 512, beside the same graph unedited (composed, no
// load-time rewrites) in a plain ONNX Runtime session with the same thread
// count; and the heap allocations per rendered frame after warm-up, counted
// by replacing malloc (left out of sanitizer builds).
//
// The engine's figure is a whole Renderer::render: widening the fp16 inputs,
// the lip contour and Session::Run over the bound buffers. The plain figure
// is Session::Run alone on inputs prepared beforehand.
//
// Then the edits that move the source warp, on the cone director (8 source
// frames walked in a loop, a new one every frame), at 1 and 2 threads: the
// source-cone hoist on and off (off: the same director with P_rgb's size
// left symbolic, which the hoist can't cut), and the warp node with the warp
// fuse off and on (LE_WARP_NODE, LE_WARP_FUSE): the median milliseconds of a
// whole render, of processor time on the rendering thread (which a loaded
// machine does not inflate, and which the hoist lowers by moving the cone to
// its worker), and the allocations per frame, with the ratios side by side.
#include <onnxruntime_cxx_api.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bundle/drive.h"
#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "compute/half.h"
#include "compute/threads.h"
#include "director/renderer.h"
#include "tessera/lip_contour.h"
#include "bench/alloc_count.h"

namespace {

using le::bench::allocations;

struct Timing {
  double fps = 0.0, medianMs = 0.0, allocsPerFrame = 0.0;
};

Timing timeFrames(int warm, int n, const std::function<void(int)>& frame) {
  for (int i = 0; i < warm; ++i) frame(i);
  std::vector<double> ms;
  ms.reserve(static_cast<size_t>(n));
  const uint64_t a0 = allocations();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    frame(i);
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double allocs = static_cast<double>(allocations() - a0) / n;
  std::sort(ms.begin(), ms.end());
  return {n / total, ms[ms.size() / 2], allocs};
}

void benchCrop(const std::string& root, int crop, int threads, int frames) {
  const std::string dir = root + "/crop" + std::to_string(crop);
  const std::string cmd = std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/render_graphs.py bench " +
                          dir + " " + std::to_string(crop);
  if (std::system(cmd.c_str()) != 0) throw std::runtime_error("generating the crop " + std::to_string(crop) + " bundle failed");
  const le::Manifest m = le::loadManifest(dir, 0);
  le::Identity identity(m);
  const le::Drive drive = le::loadDrive(m);

  le::Renderer renderer(m, identity, "b1_fp32", threads, "");
  const Timing engine = timeFrames(3, frames, [&](int i) {
    const auto row = static_cast<size_t>(i % drive.frames);
    renderer.render(&drive.si[row], drive.xs.data() + row * 63, drive.xd.data() + row * 63, 1);
  });

  // The plain session: ONNX Runtime's defaults and the same thread count.
  Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "bench");
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(threads);
  Ort::Session session(env, (dir + "/composed.onnx").c_str(), options);
  const size_t plane = static_cast<size_t>(crop) * static_cast<size_t>(crop);
  std::vector<float> pooled(65536), prior(3 * plane), kd(drive.xd.begin(), drive.xd.begin() + 63),
      ks(drive.xs.begin(), drive.xs.begin() + 63), lip(plane), rgb(3 * plane);
  le::halfToFloat(identity.pooled64(drive.si[0]), pooled.data(), pooled.size());
  le::halfToFloat(identity.P(drive.si[0]), prior.data(), prior.size());
  le::tessera::LipContour::fromTemplateJson(m.lip_template_json, crop).contourF32Canvas(kd.data(), lip.data());
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const int64_t c = crop;
  auto tensor = [&](std::vector<float>& v, std::vector<int64_t> shape) {
    return Ort::Value::CreateTensor<float>(mem, v.data(), v.size(), shape.data(), shape.size());
  };
  const char* names[] = {"pooled64", "P_rgb", "kp_driving", "kp_source", "lip_delivery"};
  Ort::Value in[] = {tensor(pooled, {1, 64, 32, 32}), tensor(prior, {1, 3, c, c}), tensor(kd, {1, 21, 3}),
                     tensor(ks, {1, 21, 3}), tensor(lip, {1, 1, c, c})};
  const char* outName = "rgb";
  Ort::Value out = tensor(rgb, {1, 3, c, c});
  const Timing plain = timeFrames(3, frames, [&](int) {
    session.Run(Ort::RunOptions{nullptr}, names, in, 5, &outName, &out, 1);
  });

  std::printf("crop %3d | engine renderer %7.2f fps (median %7.2f ms, %5.1f allocs/frame) | plain ORT, unedited "
              "%7.2f fps (median %7.2f ms, %5.1f allocs/frame) | engine/plain %.2fx\n",
              crop, engine.fps, engine.medianMs, engine.allocsPerFrame, plain.fps, plain.medianMs,
              plain.allocsPerFrame, engine.fps / plain.fps);
}

// Processor time of the calling thread: the part of a frame that stays on
// the frame's own thread, whatever else the machine is running.
double threadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// One renderer of the cone bundle under its switches, with its frames so far.
struct ConeRun {
  const char* key;
  const char* warpNode;  // null: unset
  const char* warpFuse;
  std::unique_ptr<le::Renderer> renderer;
  int row = 0;  // its own walk through the drive rows
  std::vector<double> ms, cpuMs;
  uint64_t allocs = 0;

  void frame(const le::Drive& drive) {
    const auto r = static_cast<size_t>(row++ % drive.frames);
    renderer->render(&drive.si[r], drive.xs.data() + r * 63, drive.xd.data() + r * 63, 1);
  }
  static double median(std::vector<double>& v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  }
  double allocsPerFrame() const { return static_cast<double>(allocs) / static_cast<double>(ms.size()); }
};

// The four renderers take turns, a block of frames each, so that the load
// of a shared machine falls on all of them alike. A block begins with one
// untimed frame, which also takes what the block before left running (a
// prefetch); allocations are counted over the timed frames, which in the
// steady state hold one prefetch each.
void benchConeCrop(const std::string& root, int crop, int frames) {
  const std::string dir = root + "/cone" + std::to_string(crop);
  const std::string cmd = std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/cone_graphs.py bench " +
                          dir + " " + std::to_string(crop);
  if (std::system(cmd.c_str()) != 0)
    throw std::runtime_error("generating the crop " + std::to_string(crop) + " cone bundle failed");
  const le::Manifest m = le::loadManifest(dir, 0);
  le::Identity identity(m);
  const le::Drive drive = le::loadDrive(m);
  auto set = [](const char* name, const char* value) {
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  };
  constexpr int kBlock = 5;
  for (const int threads : {1, 2}) {
    ConeRun runs[4] = {{"cone", nullptr, nullptr},  // hoisted
                       {"symbolic", nullptr, nullptr},
                       {"cone", "1", nullptr},
                       {"cone", "1", "1"}};
    for (ConeRun& r : runs) {
      set("LE_WARP_NODE", r.warpNode);
      set("LE_WARP_FUSE", r.warpFuse);
      r.renderer = std::make_unique<le::Renderer>(m, identity, r.key, threads, "");
      for (int i = 0; i < 2; ++i) r.frame(drive);
    }
    set("LE_WARP_NODE", nullptr);
    set("LE_WARP_FUSE", nullptr);
    for (int done = 0; done < frames; done += kBlock)
      for (ConeRun& r : runs) {
        r.frame(drive);
        const uint64_t a0 = allocations();
        for (int i = 0; i < kBlock && done + i < frames; ++i) {
          const double c0 = threadCpuMs();
          const auto t0 = std::chrono::steady_clock::now();
          r.frame(drive);
          r.ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
          r.cpuMs.push_back(threadCpuMs() - c0);
        }
        r.allocs += allocations() - a0;
      }
    double ms[4], cpu[4];
    for (int k = 0; k < 4; ++k) {
      ms[k] = ConeRun::median(runs[k].ms);
      cpu[k] = ConeRun::median(runs[k].cpuMs);
    }
    std::printf("crop %3d, %d thread%s | hoist on %7.2f ms (cpu %6.2f, %5.1f allocs) | hoist off %7.2f ms (cpu %6.2f, "
                "%5.1f allocs) | off/on %.2fx (cpu %.2fx) | warp node, fuse off %7.2f ms (cpu %6.2f, %5.1f allocs) | "
                "fuse on %7.2f ms (cpu %6.2f, %5.1f allocs) | off/on %.2fx (cpu %.2fx)\n",
                crop, threads, threads == 1 ? " " : "s", ms[0], cpu[0], runs[0].allocsPerFrame(), ms[1], cpu[1],
                runs[1].allocsPerFrame(), ms[1] / ms[0], cpu[1] / cpu[0], ms[2], cpu[2], runs[2].allocsPerFrame(), ms[3],
                cpu[3], runs[3].allocsPerFrame(), ms[2] / ms[3], cpu[2] / cpu[3]);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const int frames = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    const int threads = le::pool::threads();
    char tmpl[] = "/tmp/le_bench_render.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot make a temporary directory");
    const std::string root = tmpl;
    std::printf("render: %d timed frames after 3 warm-up frames, %d threads (LE_CORE_THREADS), ONNX Runtime CPU "
                "provider%s\n",
                frames, threads, LE_BENCH_COUNT_ALLOCS ? "" : "; allocations not counted in this build");
    int rc = 0;
    try {
      for (const int crop : {256, 512}) benchCrop(root, crop, threads, frames);
      std::printf("cone director: median ms per frame of the renderer with each edit on and off (cpu: median ms of "
                  "processor time on the rendering thread; allocations per frame); off/on above 1 means the edit is "
                  "faster\n");
      for (const int crop : {256, 512}) benchConeCrop(root, crop, frames);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "render: %s\n", e.what());
      rc = 1;
    }
    std::filesystem::remove_all(root);
    return rc;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "render: %s\n", e.what());
    return 1;
  }
}
