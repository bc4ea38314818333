#include "driver/cursor.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bundle/file_util.h"
#include "bundle/manifest_key.h"
#include "bundle/members.h"
#include "driver/jpeg_source.h"
#include "driver/movie_source.h"

namespace le {

// Fields in declaration order: the decoder thread is last, so it is joined first.
struct DriverCursor::Impl {
  std::unique_ptr<driver::Source> source;
  int32_t nt = 0, w = 0, h = 0;
  std::size_t frame_bytes = 0;
  int32_t look = 1;
  int32_t history = 0;
  int32_t ring = 2;
  std::vector<std::vector<uint8_t>> frames;
  std::vector<int32_t> ids;
  mutable std::mutex m;
  std::mutex pull_m;
  std::condition_variable space;
  std::condition_variable ready;
  uint64_t read = 0;
  uint64_t write = 0;
  uint64_t floor = 0;
  uint64_t busy = 0;
  int32_t next_id = 0;
  int32_t position = 0;
  int32_t src_pos = 0;
  int32_t seek_target = -1;
  uint64_t generation = 0;
  bool stop = false;
  std::string error;
  uint64_t seeks = 0;
  std::thread thread;

  std::size_t slotOf(uint64_t s) const { return static_cast<std::size_t>(s % static_cast<uint64_t>(ring)); }

  void fail(const std::string& text) {
    std::lock_guard<std::mutex> lk(m);
    if (error.empty()) error = text;
    ready.notify_all();
  }

  void run();
  void seek(int32_t si);
  uint8_t* take(int* id, bool mut);
};

void DriverCursor::Impl::run() {
  std::unique_lock<std::mutex> lk(m);
  for (;;) {
    if (stop) return;
    if (seek_target < 0) {
      space.wait(lk, [&] { return stop || seek_target >= 0 || write - read < static_cast<uint64_t>(look); });
      if (stop) return;
    }
    if (seek_target >= 0) {
      const int32_t t = seek_target;
      seek_target = -1;
      next_id = t;
      lk.unlock();
      try {
        source->seek(t);
        src_pos = t;
      } catch (const std::exception& e) {
        fail(std::string("le_driver: seek failed: ") + e.what());
        return;
      }
      lk.lock();
      continue;
    }
    const int32_t id = next_id;
    const std::size_t slot = slotOf(write);
    const uint64_t gen = generation;
    busy = 1;
    lk.unlock();
    bool got = false;
    try {
      if (src_pos == nt) {  // the loop's wrap: not a seek, not counted
        source->rewind();
        src_pos = 0;
      }
      got = source->next(frames[slot].data());
    } catch (const std::exception& e) {
      {
        std::lock_guard<std::mutex> g(m);
        busy = 0;
      }
      fail(std::string("le_driver: ") + e.what());
      return;
    }
    if (!got) {
      {
        std::lock_guard<std::mutex> g(m);
        busy = 0;
      }
      fail("le_driver: " + source->name() + " ended after " + std::to_string(src_pos) +
           " frames, the manifest says NT=" + std::to_string(nt) +
           " — a short driver is a session that stops part way through the loop, refusing");
      return;
    }
    ++src_pos;
    lk.lock();
    busy = 0;
    if (gen == generation) {  // a seek that came in meanwhile drops this frame
      ids[slot] = id;
      ++write;
      next_id = (id + 1) % nt;
      ready.notify_all();
    }
  }
}

void DriverCursor::Impl::seek(int32_t si) {
  if (si < 0 || si >= nt)
    throw std::runtime_error("le_driver: seek(" + std::to_string(si) + ") outside [0," + std::to_string(nt) + ")");
  std::lock_guard<std::mutex> lk(m);
  if (!error.empty()) throw std::runtime_error(error);
  position = si;
  const int32_t coming = write > read ? ids[slotOf(read)] : seek_target >= 0 ? seek_target : next_id;
  if (coming == si) return;  // the ordinary sequential case
  if (seek_target < 0) {
    const auto r = static_cast<uint64_t>(ring);
    const auto hist = static_cast<uint64_t>(history);
    const uint64_t lo = std::max({floor, write < r ? uint64_t{0} : write - r + busy,
                                  read > hist + 1 ? read - 1 - hist : uint64_t{0}});
    for (uint64_t s = lo; s < write; ++s) {
      if (ids[slotOf(s)] == si) {  // a step back into history or forward inside the look-ahead
        read = s;
        space.notify_one();
        return;
      }
    }
    if (next_id == si) {  // the decoder is about to produce si anyway
      read = write;
      space.notify_one();
      return;
    }
  }
  read = write;
  seek_target = si;
  ++generation;
  ++seeks;
  space.notify_one();
}

uint8_t* DriverCursor::Impl::take(int* id, bool mut) {
  std::unique_lock<std::mutex> lk(m);
  ready.wait(lk, [&] { return !error.empty() || write > read; });
  if (!error.empty()) throw std::runtime_error(error);
  const uint64_t s = read++;
  if (mut) floor = read;
  space.notify_one();
  const std::size_t slot = slotOf(s);
  *id = ids[slot];
  position = (*id + 1) % nt;
  return frames[slot].data();
}

namespace {

std::string manifestText(const Manifest& manifest) {
  const std::string path = manifest.bundle_dir + "/manifest.json";
  return canOpen(path) ? readFile(path) : std::string();
}

std::string frameName(const std::string& dir, int i) {
  char name[32];
  std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
  return dir + name;
}

bool envIsOne(const char* name) {
  const char* v = std::getenv(name);
  return v && std::strcmp(v, "1") == 0;
}

// What open() decided: a JPEG directory, or a movie member (or nothing).
struct DriverChoice {
  std::string dir_name;
  std::string mp4_name;
  std::string jpg_dir;
  std::string mp4_path;  // resolved
  bool use_jpg = false;
  bool published = false;
  bool prefer_note = false;  // print the LE_DRIVER_PREFER_MP4 line
};

DriverChoice chooseDriver(const Manifest& manifest) {
  DriverChoice c;
  const std::string text = manifestText(manifest);
  c.dir_name = manifest_key::stringValue(text, "target_frames");
  if (c.dir_name.empty()) c.dir_name = "target_frames";
  c.mp4_name = manifest_key::stringValue(text, "target_frames_mp4");
  if (c.mp4_name.empty()) c.mp4_name = "target_frames.mp4";
  c.published = !manifest.driver_mp4.empty();
  if (c.published) c.mp4_name = manifest.driver_mp4;
  c.jpg_dir = manifest.bundle_dir + "/" + c.dir_name;
  c.mp4_path = resolveMember(manifest.bundle_dir, c.mp4_name);
  const bool probe = !c.published && manifest.NT >= 1 && pathExists(frameName(c.jpg_dir, manifest.NT - 1));
  const bool preferred = envIsOne("LE_DRIVER_PREFER_MP4") && pathExists(c.mp4_path);
  c.prefer_note = preferred && probe;
  c.use_jpg = !preferred && probe;
  return c;
}

}  // namespace

DriverCursor::DriverCursor(std::unique_ptr<driver::Source> source, int look, int history)
    : impl(std::make_unique<Impl>()),
      nt(source->NT()),
      w(source->W()),
      h(source->H()),
      frame_bytes(source->frameBytes()),
      backend(source->name()) {
  if (nt < 1)
    throw std::runtime_error("le_driver: " + backend + " has " + std::to_string(nt) + " frames — nothing to play");
  Impl& s = *impl;
  s.source = std::move(source);
  s.nt = nt;
  s.w = w;
  s.h = h;
  s.frame_bytes = frame_bytes;
  s.look = std::max(look, 1);
  s.history = std::max(history, 0);
  s.ring = s.look + s.history + 1;
  s.frames.resize(static_cast<std::size_t>(s.ring));
  for (auto& f : s.frames) f.resize(frame_bytes);
  s.ids.assign(static_cast<std::size_t>(s.ring), -1);
  s.thread = std::thread([&s] { s.run(); });
}

DriverCursor::~DriverCursor() {
  {
    std::lock_guard<std::mutex> lk(impl->m);
    impl->stop = true;
  }
  impl->space.notify_all();
  impl->ready.notify_all();
  if (impl->thread.joinable()) impl->thread.join();
}

std::unique_ptr<DriverCursor> DriverCursor::over(std::unique_ptr<driver::Source> source, int look, int history) {
  if (!source) throw std::runtime_error("le_driver: no source to play");
  return std::unique_ptr<DriverCursor>(new DriverCursor(std::move(source), look, history));
}

std::unique_ptr<DriverCursor> DriverCursor::open(const Manifest& manifest, int look, int history) {
  const DriverChoice c = chooseDriver(manifest);
  if (c.prefer_note)
    std::fprintf(stderr, "[le-driver] LE_DRIVER_PREFER_MP4=1 — %s/ is populated and NOT used; %s is the member this "
                 "consumer reads\n", c.dir_name.c_str(), c.mp4_name.c_str());
  if (c.use_jpg) {
    std::fprintf(stderr, "[le-driver] %s/ (raw jpg, %d frames) — read one frame per pull\n", c.jpg_dir.c_str(),
                 manifest.NT);
    return over(driver::openJpgDir(c.jpg_dir, manifest.NT, manifest.W, manifest.H), look, history);
  }
  if (!pathExists(c.mp4_path))
    throw std::runtime_error("this bundle carries neither a populated " + c.dir_name + "/ nor " + c.mp4_name + " (" +
                             c.mp4_path + ") — there is no driver video to play. REFUSING to create a session.");
  auto cursor = over(driver::openMp4(c.mp4_path, manifest.NT, manifest.W, manifest.H), look, history);
  const Impl& s = *cursor->impl;
  std::fprintf(stderr,
               "[le-driver] %s decoded IN PLACE (%s, %d frames %dx%d, look-ahead %d, history %d) — no frame of the "
               "driver is expanded ahead of the paste\n",
               c.mp4_name.c_str(), cursor->backend.c_str(), cursor->nt, cursor->w, cursor->h, s.look, s.history);
  return cursor;
}

std::unique_ptr<DriverCursor> DriverCursor::openPrior(const Manifest& manifest, int look, int history) {
  std::string name = manifest_key::stringValue(manifestText(manifest), "P_hevc");
  if (name.empty()) name = "P_hevc.mov";
  const std::string path = resolveMember(manifest.bundle_dir, name);
  if (!pathExists(path))
    throw std::runtime_error("this bundle carries neither a raw P.f16 nor " + name + " (" + path +
                             ") — there is no warp prior to play. REFUSING to create a session.");
  auto cursor = over(driver::openPriorHevc(path, manifest.NT, manifest.crop), look, history);
  std::fprintf(stderr,
               "Kestrova: identity source ready — %d frames %dx%d, played straight from %s (%s); nothing is unpacked "
               "to disk\n",
               manifest.NT, manifest.crop, manifest.crop, name.c_str(), cursor->backend.c_str());
  return cursor;
}

std::string DriverCursor::mp4MemberPath(const Manifest& manifest) {
  const DriverChoice c = chooseDriver(manifest);
  if (c.use_jpg || !pathExists(c.mp4_path)) return {};
  return c.mp4_path;
}

int DriverCursor::pull(uint8_t* out) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  int pos;
  {
    std::lock_guard<std::mutex> lk(impl->m);
    pos = impl->position;
  }
  impl->seek(pos);
  int id = -1;
  const uint8_t* f = impl->take(&id, false);
  std::memcpy(out, f, frame_bytes);
  return id;
}

const uint8_t* DriverCursor::pull(int* id) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  int pos;
  {
    std::lock_guard<std::mutex> lk(impl->m);
    pos = impl->position;
  }
  impl->seek(pos);
  return impl->take(id, false);
}

uint8_t* DriverCursor::pullMut(int* id) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  int pos;
  {
    std::lock_guard<std::mutex> lk(impl->m);
    pos = impl->position;
  }
  impl->seek(pos);
  return impl->take(id, true);
}

namespace {

[[noreturn]] void wrongFrame(int id, int si) {
  throw std::runtime_error("le_driver: cursor yielded frame " + std::to_string(id) + " for si=" + std::to_string(si));
}

}  // namespace

int DriverCursor::pullAt(int si, uint8_t* out) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  impl->seek(si);
  int id = -1;
  const uint8_t* f = impl->take(&id, false);
  if (id != si) wrongFrame(id, si);
  std::memcpy(out, f, frame_bytes);
  return si;
}

const uint8_t* DriverCursor::pullAt(int si, int* id) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  impl->seek(si);
  const uint8_t* f = impl->take(id, false);
  if (*id != si) wrongFrame(*id, si);
  return f;
}

uint8_t* DriverCursor::pullMutAt(int si, int* id) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  impl->seek(si);
  uint8_t* f = impl->take(id, true);
  if (*id != si) wrongFrame(*id, si);
  return f;
}

void DriverCursor::seek(int si) {
  std::lock_guard<std::mutex> g(impl->pull_m);
  impl->seek(si);
}

int DriverCursor::position() const {
  std::lock_guard<std::mutex> lk(impl->m);
  return impl->position;
}

uint64_t DriverCursor::seeks() const {
  std::lock_guard<std::mutex> lk(impl->m);
  return impl->seeks;
}

std::size_t DriverCursor::residentBytes() const {
  return impl->source->residentBytes() + frame_bytes * static_cast<std::size_t>(impl->ring);
}

int DriverCursor::ringSlots() const { return impl->ring; }

int DriverCursor::buffered() const {
  std::lock_guard<std::mutex> lk(impl->m);
  return static_cast<int>(impl->write > impl->read ? impl->write - impl->read : 0);
}

}  // namespace le
