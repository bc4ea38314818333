#include "bundle/identity_members.h"

#include <stdexcept>

#include "bundle/file_util.h"
#include "bundle/manifest_key.h"
#include "bundle/members.h"

namespace le {

void ensureIdentityMembers(const Manifest& manifest) {
  const std::string& dir = manifest.bundle_dir;
  const std::string text = readFile(dir + "/manifest.json");
  const auto present = [&](const std::string& member) { return pathExists(resolveMember(dir, member)); };

  std::string name = manifest_key::stringValue(text, "P_rgb");
  if (name.empty()) name = "P.f16";
  const bool raw = present("P.f16") || present("fs_red.f16");
  if (name != "P.f16" && present(name) && !raw)
    throw std::runtime_error(
        "this bundle's manifest names its raw warp prior '" + name +
        "' (P_rgb) but le::Identity maps the welded name P.f16 and would find nothing — it maps NOTHING "
        "silently and Identity::P(si) is then an offset from a null pointer. REFUSING rather than rendering "
        "off a prior nothing will read.");
  if (raw) return;
  const std::string hevc = manifest_key::stringValue(text, "P_hevc");
  if (hevc.empty())
    throw std::runtime_error("this bundle carries neither " + name +
                             " nor fs_red.f16, and its manifest names no P_hevc member to play one from — the "
                             "renderer has no warp prior and le::Identity would hand it a null pointer. REFUSING "
                             "to create a session.");
  const std::string resolved = resolveMember(dir, hevc);
  if (!pathExists(resolved))
    throw std::runtime_error("this bundle's manifest names P_hevc '" + hevc + "' and the file is not there (" +
                             resolved + ") — the renderer has no warp prior. REFUSING to create a session.");
}

}  // namespace le
