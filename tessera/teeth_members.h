// The four teeth members of a bundle: whether the bundle carries them (the
// carriage), and the checked record the host hands to a session (the attach
// inputs). All four present arms the borrow; any one missing refuses it.
// There is no middle state and no rendering mode without them.
//
// The library never decodes the reference track: the host decodes it into
// n_donors frames of band_h x band_w RGB in track order, and
// reorderTrackToDonor puts them in donor order.
#pragma once

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessera/geometry_stamp.h"

namespace le {

struct Manifest;

// Slot keys in slot order, and their count (4).
const std::array<const char*, 4>& tesseraSlotKeys();
int32_t tesseraSlotCount();

// One file name per slot, in slot order.
using TesseraSlots = std::array<std::string, 4>;

// The names a bundle stores the members under unless its manifest says
// otherwise.
const TesseraSlots& tesseraDefaultSlots();

struct TesseraCarriage {
  TesseraSlots slots;                // default names, or those the manifest declares
  std::array<std::string, 4> paths;  // resolveMember of each name
  bool complete = false;             // no member is missing: the one predicate
  std::vector<std::string> missing;  // slot keys that did not open, in slot order
  bool declared = false;             // the manifest holds a `tessera` object
  std::vector<std::string> planes;   // manifest.tessera.planes as declared; not consulted

  // The slot's resolved path; throws "teeth: no such member slot '<key>'".
  const std::string& path(const std::string& slotKey) const;
};

// A carriage that is not complete. `missing` is the carriage's list, so a
// caller can act on it without parsing the words.
class MissingTesseraMember : public std::runtime_error {
 public:
  MissingTesseraMember(const std::string& what, std::vector<std::string> missingKeys)
      : std::runtime_error(what), missing(std::move(missingKeys)) {}
  std::vector<std::string> missing;
};

struct TesseraAttachInputs {
  int32_t n_donors = 0;              // 1 to 1024
  std::vector<int32_t> track_order;  // entry i: donor slot of track frame i; a permutation
  std::vector<double> cent;          // 2 * n_donors, interleaved x, y: each donor's pi centroid
  std::array<double, 2> c_canon{};   // the bank's canonical centroid, x then y
  std::vector<double> aperture;      // n_donors mouth apertures
  GeometryStamp stamp;
  std::vector<uint8_t> head_pt;      // raw head_weights member
  std::string head_json;             // raw head_config member
  std::string manifest_json;         // raw manifest text
  std::string bank_track_path;       // resolved path of the reference track
  std::string bank_container;
  std::string bank_codec;
  std::string bank_pix_fmt;
  std::string bank_packing;
  int32_t band_w = 0;  // stored patch width
  int32_t band_h = 0;  // stored patch height
};

// The bank as the teeth pass holds it; the session builds it from the attach
// arguments.
struct BankData {
  std::vector<uint8_t> refs;  // n stored patches in donor order, stored_h x stored_w x 3, RGB
  std::vector<double> cent;   // 2 * n
  std::array<double, 2> c_canon{};
  std::vector<double> aperture;  // n
  GeometryStamp stamp;
  int32_t n = 0;
};

// What a bundle (directory or container) carries. Never throws on a bad
// manifest; resolving a bad container does throw.
TesseraCarriage tesseraCarriage(const std::string& bundleDir);
TesseraCarriage tesseraCarriage(const Manifest& manifest);

// Throws MissingTesseraMember unless the carriage is complete.
void requireTesseraMembers(const TesseraCarriage& carriage);

// Reads and cross-checks the four members. Every refusal throws; nothing
// partial is ever returned. The stamp is not validated here: that is the
// consumer's step.
TesseraAttachInputs loadTesseraMembers(const std::string& bundleDir);
TesseraAttachInputs loadTesseraMembers(const Manifest& manifest);

// Copies track frame i of `trackFrames` to frame track_order[i] of
// `donorFrames`; each frame is band_w * band_h * 3 bytes. The two buffers
// are distinct, each n_donors frames long.
void reorderTrackToDonor(const TesseraAttachInputs& inputs, const uint8_t* trackFrames, uint8_t* donorFrames);

}  // namespace le
