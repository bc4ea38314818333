// The per-avatar identity tensors, by source frame index si:
// pooled features, the warp prior (mapped P.f16, or a movie played through a
// DriverCursor on first use), the reduced features and the paste matrices.
// The large tensors are memory-mapped read-only and never copied; every
// length is checked against the manifest at load.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bundle/manifest.h"
#include "bundle/mapped_file.h"

namespace le {

class DriverCursor;

class Identity {
 public:
  // Maps and checks every member against the manifest; throws a refusal, and no partly loaded object
  // exists. Refuses (through ensureIdentityMembers) a bundle with no usable
  // warp prior.
  explicit Identity(const Manifest& manifest);
  ~Identity();  // unmaps, and joins the prior cursor's decoder thread
  Identity(const Identity&) = delete;
  Identity& operator=(const Identity&) = delete;

  int32_t nt() const { return nt_; }
  int32_t crop() const { return crop_; }

  // 65,536 halves at si x 131,072 bytes.
  const uint16_t* pooled64(int si) const {
    return reinterpret_cast<const uint16_t*>(pooled_.data() + static_cast<std::size_t>(si) * kPooledBytes);
  }
  // 262,144 halves at si x 524,288 bytes; null if the bundle has no fs_red.f16.
  const uint16_t* fsRed(int si) const {
    if (fs_red_.empty()) return nullptr;
    return reinterpret_cast<const uint16_t*>(fs_red_.data() + static_cast<std::size_t>(si) * kFsRedBytes);
  }
  // The frame's prior row: three planes R, G, B of crop x crop halves. From
  // the mapping, or from the movie prior's cursor (opened on first call), in
  // which case the pointer is good as long as a frame of the cursor's ring is.
  // A bundle with neither (fs_red.f16 only) throws openPrior's refusal.
  const uint16_t* P(int si);
  // 6 floats: the 2x3 paste matrix of frame si, row major, after rescaleM.
  const float* M(int si) const { return m_.data() + static_cast<std::size_t>(si) * 6; }

  // The movie prior's cursor, opened on first call (look-ahead 2, history
  // 11) under a once flag. Throws when the bundle has no movie prior or the
  // movie can't be played.
  DriverCursor& prior();
  // Keeps a movie prior's cursor in step with frames delivered without a
  // render; nothing if the prior is mapped or isn't a movie.
  void walkP(int si);
  // "mmap P.f16", "none", or the movie source's name (opens the prior).
  std::string priorBackend();
  // 0 unless the prior is a movie whose cursor is open.
  std::size_t priorResidentBytes() const;
  uint64_t priorSeeks() const;

  const std::string& priorMember() const { return prior_member_; }
  const std::vector<float>& m() const { return m_; }

  // The load step that scales M from the canvas it was authored on
  // (M_src_w x M_src_h) to the manifest's W x H. Refuses a stamp below 1.
  void rescaleM(const Manifest& manifest);

  static constexpr std::size_t kPooledBytes = 131072;
  static constexpr std::size_t kFsRedBytes = 524288;

 private:
  // Declared in this order: the mappings go before the movie prior.
  int32_t nt_ = 0;
  int32_t crop_ = 0;
  MappedFile pooled_;
  MappedFile p_;
  MappedFile fs_red_;
  std::vector<float> m_;
  std::string prior_member_;
  Manifest manifest_;
  std::once_flag prior_once_;
  std::unique_ptr<DriverCursor> prior_cursor_;
  std::atomic<DriverCursor*> prior_open_{nullptr};  // published once prior_cursor_ is set
};

}  // namespace le
