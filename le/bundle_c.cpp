// Finding a bundle and its members without a context.
#include <cstring>
#include <string>

#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/members.h"
#include "le/boundary.h"
#include "le/le.h"

using le::boundary::Family;

namespace {

bool copyOut(const std::string& s, char* out, size_t cap) {
  if (s.size() + 1 > cap) {
    out[0] = 0;
    return false;
  }
  std::memcpy(out, s.c_str(), s.size() + 1);
  return true;
}

}  // namespace

extern "C" {

LE_API int le_bundle_resolve_handle(const char* path, char* out, size_t cap) {
  le::boundary::clear(Family::Context);
  if (!path || !out || cap == 0) return -1;
  out[0] = 0;
  return le::boundary::run(Family::Context, "le_bundle_resolve_handle", -1, [&] {
    if (copyOut(le::resolveBundlePath(path), out, cap)) return 1;
    le::boundary::storeFixed(Family::Context, "le_bundle_resolve_handle: buffer too small");
    return -1;
  });
}

// A container that fails to unpack must not let its exception cross the
// boundary; the reason goes to le_last_error() as for the handle lookup.
LE_API int le_bundle_resolve_member(const char* path, const char* member, char* out, size_t cap) {
  le::boundary::clear(Family::Context);
  if (!path || !member || !out || cap == 0) return -1;
  out[0] = 0;
  return le::boundary::run(Family::Context, "le_bundle_resolve_member", -1, [&] {
    const std::string resolved = le::resolveMember(le::resolveBundlePath(path), member);
    if (!copyOut(resolved, out, cap)) return -1;
    return le::canOpen(resolved) ? 1 : 0;
  });
}

}  // extern "C"
