#include "director/legacy_compose.h"

#include <cstdio>
#include <stdexcept>

namespace le {

void refuseLegacyCompose(const Manifest& manifest, const std::string& name, const std::string& reason) {
  const std::string id = manifest.agent.empty() ? manifest.bundle_dir : manifest.agent;
  const std::string code = manifest.agent.empty() ? "<agent code>" : manifest.agent;
  const std::string text =
      "LEGACY COMPOSE REFUSED for identity '" + id + "' (" + name + "): " + reason +
      ". This avatar file was published before compose v2 (the mouth-corner fix) and this engine renders compose v2 "
      "only. Get the avatar's current file: an SDK that downloads by agent code refreshes it by itself; a file you "
      "keep must be downloaded again (`kestrova pull " +
      code + " --force`, or the \"Download model\" command on the agent's page in the Kestrova web studio).";
  std::fprintf(stderr, "[le] ERROR: %s\n", text.c_str());
  throw std::runtime_error("Renderer: " + text);
}

}  // namespace le
