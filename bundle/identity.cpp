#include "bundle/identity.h"

#include <stdexcept>

#include "bundle/file_util.h"
#include "bundle/identity_members.h"
#include "bundle/manifest_key.h"
#include "bundle/members.h"
#include "driver/cursor.h"

namespace le {

Identity::Identity(const Manifest& manifest) : nt_(manifest.NT), crop_(manifest.crop), manifest_(manifest) {
  ensureIdentityMembers(manifest);
  const std::string& dir = manifest.bundle_dir;
  const auto nt = static_cast<std::size_t>(nt_ < 0 ? 0 : nt_);
  const auto crop = static_cast<std::size_t>(crop_ < 0 ? 0 : crop_);

  pooled_ = MappedFile(resolveMember(dir, "pooled64.f16"), nt * kPooledBytes);

  const std::string p = resolveMember(dir, "P.f16");
  const std::string fs = resolveMember(dir, "fs_red.f16");
  const bool has_fs = canOpen(fs);
  if (canOpen(p)) {
    p_ = MappedFile(p, nt * crop * crop * 6);
  } else if (!has_fs) {
    std::string name = manifest_key::stringValue(readFile(dir + "/manifest.json"), "P_hevc");
    if (name.empty()) name = "P_hevc.mov";
    const std::string movie = resolveMember(dir, name);
    if (canOpen(movie)) prior_member_ = movie;
  }
  if (has_fs) fs_red_ = MappedFile(fs, nt * kFsRedBytes);

  m_.resize(nt * 6);
  readExact(resolveMember(dir, "M.f32"), m_.data(), m_.size() * sizeof(float));
  rescaleM(manifest);
}

Identity::~Identity() = default;

void Identity::rescaleM(const Manifest& manifest) {
  if (manifest.M_src_w < 1 || manifest.M_src_h < 1)
    throw std::runtime_error(
        "le::Identity: manifest carries no paste-space stamp (M_src_w/M_src_h) — refusing to paste M without "
        "knowing the space it was authored in");
  if ((manifest.M_src_w == manifest.W && manifest.M_src_h == manifest.H) || nt_ < 1) return;
  const double sx = static_cast<double>(manifest.W) / static_cast<double>(manifest.M_src_w);
  const double sy = static_cast<double>(manifest.H) / static_cast<double>(manifest.M_src_h);
  for (std::size_t f = 0; f + 6 <= m_.size(); f += 6) {
    for (std::size_t k = 0; k < 3; ++k) m_[f + k] = static_cast<float>(static_cast<double>(m_[f + k]) * sx);
    for (std::size_t k = 3; k < 6; ++k) m_[f + k] = static_cast<float>(static_cast<double>(m_[f + k]) * sy);
  }
}

DriverCursor& Identity::prior() {
  std::call_once(prior_once_, [this] {
    prior_cursor_ = DriverCursor::openPrior(manifest_, 2, 11);
    prior_open_.store(prior_cursor_.get(), std::memory_order_release);
  });
  return *prior_cursor_;
}

const uint16_t* Identity::P(int si) {
  if (!p_.empty())
    return reinterpret_cast<const uint16_t*>(p_.data() + static_cast<std::size_t>(si) * crop_ * crop_ * 6);
  int got = -1;
  return reinterpret_cast<const uint16_t*>(prior().pullAt(si, &got));
}

void Identity::walkP(int si) {
  if (!p_.empty() || prior_member_.empty()) return;
  DriverCursor& cursor = prior();
  const int pos = cursor.position();
  if (nt_ >= 1 && pos >= 0) {
    const int d = ((si - pos) % nt_ + nt_) % nt_;
    if (d > nt_ / 2) return;  // si lies behind the cursor: leave it where it is
  }
  int got = -1;
  (void)cursor.pullAt(si, &got);
}

std::string Identity::priorBackend() {
  if (!p_.empty()) return "mmap P.f16";
  if (prior_member_.empty()) return "none";
  return prior().backend;
}

std::size_t Identity::priorResidentBytes() const {
  const DriverCursor* c = prior_open_.load(std::memory_order_acquire);
  return c && !prior_member_.empty() ? c->residentBytes() : 0;
}

uint64_t Identity::priorSeeks() const {
  const DriverCursor* c = prior_open_.load(std::memory_order_acquire);
  return c && !prior_member_.empty() ? c->seeks() : 0;
}

}  // namespace le
