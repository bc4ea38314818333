// The teeth members of a bundle: the bank sidecar (tessera_bank.v1.json)
// and the manifest's tessera block, read and cross-checked into the attach
// inputs. The input is
//   sidecar length (u32, little-endian) | sidecar | manifest.json
// written into a bundle directory that also holds the other two members.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessera/teeth_members.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    const std::string d = le::fuzz::privateDir();
    le::fuzz::writeFile(d + "/tessera_bank.v1.mp4", "track");
    le::fuzz::writeFile(d + "/tessera_head.v1.pt", "weights");
    le::fuzz::writeFile(d + "/tessera_head.v1.json", "{}");
    return d;
  }();
  const size_t sidecarSize = std::min<size_t>(le::fuzz::takeU32(data, size), size);
  le::fuzz::writeFile(dir + "/tessera_bank.v1.json", le::fuzz::asText(data, sidecarSize));
  le::fuzz::writeFile(dir + "/manifest.json", le::fuzz::asText(data + sidecarSize, size - sidecarSize));

  le::tesseraCarriage(dir);
  le::TesseraAttachInputs in;
  try {
    in = le::loadTesseraMembers(dir);
  } catch (const std::runtime_error&) {
    return 0;
  }
  const size_t n = static_cast<size_t>(in.n_donors);
  FUZZ_CHECK(n >= 1 && n <= 1024 && in.track_order.size() == n && in.cent.size() == 2 * n && in.aperture.size() == n);
  FUZZ_CHECK(in.band_w >= 1 && in.band_h >= 1 && !in.bank_pix_fmt.empty());
  try {
    in.stamp.validate();
  } catch (const std::runtime_error&) {
  }
  // The reorder is a permutation: every donor frame is written once.
  const size_t frame = static_cast<size_t>(in.band_w) * static_cast<size_t>(in.band_h) * 3;
  if (frame * n <= (size_t{1} << 20)) {
    std::vector<uint8_t> track(frame * n), donor(frame * n, 0xEE);
    for (size_t i = 0; i < n; ++i) std::memset(track.data() + i * frame, static_cast<int>(i & 0xFF), frame);
    le::reorderTrackToDonor(in, track.data(), donor.data());
    for (size_t i = 0; i < n; ++i)
      FUZZ_CHECK(donor[static_cast<size_t>(in.track_order[i]) * frame] == static_cast<uint8_t>(i & 0xFF));
  }
  return 0;
}
