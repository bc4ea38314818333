#include "tessera/teeth_members.h"

#include <cstring>
#include <limits>

#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/manifest.h"
#include "bundle/members.h"
#include "tessera/json.h"
#include "tessera/number.h"

namespace le {

namespace {

using tessera::json::JVal;

constexpr int32_t kMaxDonors = 1024;
constexpr const char* kSidecarFormat = "tessera_bank.v1";

enum Slot { kBankTrack, kBankSidecar, kHeadWeights, kHeadConfig };

// manifest.json, else meta.json, else none (empty).
std::string findManifest(const std::string& dir) {
  for (const char* name : {"/manifest.json", "/meta.json"}) {
    std::string p = dir + name;
    if (canOpen(p)) return p;
  }
  return {};
}

// A member's bytes, with the failure named as the teeth pass names it.
std::string readMember(const std::string& path) {
  try {
    return readFile(path);
  } catch (const std::runtime_error& e) {
    // readFile says "cannot open <path>" or "short read <path>".
    throw std::runtime_error(std::string("teeth: ") + e.what());
  }
}

const JVal* objectMember(const JVal& v, const char* key) {
  const JVal* m = v.find(key);
  return m && m->kind == JVal::kObject ? m : nullptr;
}

TesseraCarriage carriageOf(const std::string& dir) {
  TesseraCarriage c;
  c.slots = tesseraDefaultSlots();
  const std::string manifestPath = findManifest(dir);
  if (!manifestPath.empty()) {
    // An unreadable or unparsable manifest leaves the defaults: deciding
    // what is wrong with it is the loader's business, not the carriage's.
    JVal root;
    bool parsed = false;
    try {
      const std::string text = readFile(manifestPath);
      root = tessera::json::JParser(text).document();
      parsed = true;
    } catch (const std::runtime_error&) {
    }
    const JVal* block = parsed ? objectMember(root, "tessera") : nullptr;
    if (block) {
      c.declared = true;
      if (const JVal* members = objectMember(*block, "members")) {
        for (size_t i = 0; i < c.slots.size(); ++i) {
          const JVal* name = members->find(tesseraSlotKeys()[i]);
          if (name && name->kind == JVal::kString && !name->str.empty()) c.slots[i] = name->str;
        }
      }
      const JVal* planes = block->find("planes");
      if (planes && planes->kind == JVal::kArray) {
        for (const JVal& p : planes->arr)
          if (p.kind == JVal::kString) c.planes.push_back(p.str);
      }
    }
  }
  // Opening is the whole presence test: an empty file is present.
  for (size_t i = 0; i < c.slots.size(); ++i) {
    c.paths[i] = resolveMember(dir, c.slots[i]);
    if (!canOpen(c.paths[i])) c.missing.emplace_back(tesseraSlotKeys()[i]);
  }
  c.complete = c.missing.empty();
  return c;
}

[[noreturn]] void refuse(const std::string& words) { throw std::runtime_error(words); }

}  // namespace

const std::array<const char*, 4>& tesseraSlotKeys() {
  static const std::array<const char*, 4> k = {"bank_track", "bank_sidecar", "head_weights", "head_config"};
  return k;
}

int32_t tesseraSlotCount() { return static_cast<int32_t>(tesseraSlotKeys().size()); }

const TesseraSlots& tesseraDefaultSlots() {
  static const TesseraSlots s = {"tessera_bank.v1.mp4", "tessera_bank.v1.json", "tessera_head.v1.pt",
                                 "tessera_head.v1.json"};
  return s;
}

const std::string& TesseraCarriage::path(const std::string& slotKey) const {
  for (size_t i = 0; i < tesseraSlotKeys().size(); ++i)
    if (slotKey == tesseraSlotKeys()[i]) return paths[i];
  refuse("teeth: no such member slot '" + slotKey + "'");
}

TesseraCarriage tesseraCarriage(const std::string& bundleDir) { return carriageOf(resolveBundlePath(bundleDir)); }

TesseraCarriage tesseraCarriage(const Manifest& manifest) { return tesseraCarriage(manifest.bundle_dir); }

void requireTesseraMembers(const TesseraCarriage& carriage) {
  if (carriage.complete) return;
  std::string list;
  for (const std::string& key : carriage.missing) {
    size_t slot = 0;
    while (slot < tesseraSlotKeys().size() && key != tesseraSlotKeys()[slot]) ++slot;
    if (!list.empty()) list += ", ";
    list += key + " (" + (slot < carriage.slots.size() ? carriage.slots[slot] : std::string()) + ")";
  }
  const size_t carried = carriage.missing.size() >= 4 ? 0 : 4 - carriage.missing.size();
  throw MissingTesseraMember(
      "missing teeth member(s): " + list + " — carries " + std::to_string(carried) + " of 4" +
          (carriage.declared ? " and declares a manifest.tessera block the members do not keep" : "") +
          ". ONE predicate (owner ruling 2026-09-06): all four members present = ARMED on every plane; any "
          "missing = REFUSED on every plane. The borrow is a SWITCH, not a gradient — there is no rendering mode "
          "that proceeds without them (vespera-2 IS borrowed teeth). Re-stage the bundle with the bank builder.",
      carriage.missing);
}

TesseraAttachInputs loadTesseraMembers(const std::string& bundleDir) {
  const std::string dir = resolveBundlePath(bundleDir);
  const TesseraCarriage carriage = carriageOf(dir);
  requireTesseraMembers(carriage);

  const std::string manifestPath = findManifest(dir);
  if (manifestPath.empty()) {
    refuse(dir +
           " carries no manifest.json or meta.json — the compose descriptor (unified.pi) the pass places its window "
           "by lives there, and placing a borrow window without it is guessing.");
  }

  TesseraAttachInputs in;
  in.manifest_json = readMember(manifestPath);
  in.head_json = readMember(carriage.paths[kHeadConfig]);
  {
    const std::string pt = readMember(carriage.paths[kHeadWeights]);
    // The weights travel on through the C interface with a 32-bit length.
    if (pt.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
      refuse("teeth: " + carriage.paths[kHeadWeights] + " holds " + std::to_string(pt.size()) +
             " bytes, more than a head weights member can be handed on with");
    }
    in.head_pt.assign(pt.begin(), pt.end());
  }
  in.bank_track_path = carriage.paths[kBankTrack];
  const std::string sidecarText = readMember(carriage.paths[kBankSidecar]);

  const std::string& sidecar = carriage.slots[kBankSidecar];
  const JVal side = tessera::json::parseJson(sidecarText, sidecar);
  const JVal manifest = tessera::json::parseJson(in.manifest_json, manifestPath);

  const std::string format = tessera::json::optStr(side, "format", "");
  if (format != kSidecarFormat) {
    refuse(sidecar + " declares format '" + format +
           "', not 'tessera_bank.v1' — this reader does not know that generation and will not guess at its keys.");
  }

  const JVal* geometry = objectMember(side, "geometry");
  if (!geometry) refuse(sidecar + " carries no `geometry` stamp");
  readStamp(*geometry, sidecar + ".geometry", in.stamp);

  const JVal* block = objectMember(manifest, "tessera");
  if (const JVal* declared = block ? objectMember(*block, "geometry") : nullptr) {
    GeometryStamp stated;
    readStamp(*declared, "manifest.tessera.geometry", stated);
    if (!(stated == in.stamp)) {
      refuse("teeth geometry DISAGREES between the manifest and the bank sidecar — manifest " + stampStr(stated) +
             " vs " + sidecar + " " + stampStr(in.stamp) +
             "; refusing to place a window on a rectangle the two halves of the bundle do not agree on.");
    }
  }

  const int64_t bandH = in.stamp.storedH();
  const int64_t bandW = in.stamp.storedW();
  if (bandH < 1 || bandW < 1) {
    refuse("teeth stamp yields a non-positive stored patch (" + std::to_string(bandW) + "x" + std::to_string(bandH) +
           ")");
  }
  // A donor frame's byte count must be a size every consumer can hold; a
  // stamp beyond it cannot come from a bank that was ever built. (Divided,
  // not multiplied: two sides of a hostile stamp overflow 64 bits.)
  constexpr int64_t kMaxFrameBytes = std::numeric_limits<int32_t>::max();
  if (bandW > kMaxFrameBytes / 3 || bandH > kMaxFrameBytes / (3 * bandW)) {
    refuse("teeth stamp yields a stored patch (" + std::to_string(bandW) + "x" + std::to_string(bandH) +
           ") of more than 2147483647 bytes per donor — no bank holds frames that large");
  }
  in.band_h = static_cast<int32_t>(bandH);
  in.band_w = static_cast<int32_t>(bandW);

  const int32_t n = tessera::truncToI32(tessera::json::reqNum(side, "n_donors", sidecar));
  if (n < 1) refuse(sidecar + " says n_donors=" + std::to_string(n));
  if (n > kMaxDonors) {
    // Which donors survive a cap is decided when the bank is built; a second
    // cap here would change the mouth while every count still matched.
    refuse(sidecar + " carries n_donors=" + std::to_string(n) +
           ", over the owner's cap of 1024 (ruling 2026-08-28). This reader REFUSES rather than capping: the selector "
           "is the bank's BUILD-time cap selector, and a second one here would change which donors reach the mouth "
           "while every count-based check stayed green. Rebuild the bank.");
  }
  in.n_donors = n;

  const JVal* order = side.find("track_order");
  const JVal* cent = side.find("cent");
  const JVal* aperture = side.find("aperture");
  const JVal* canon = side.find("c_canon");
  for (const JVal* a : {order, cent, aperture, canon}) {
    if (!a || a->kind != JVal::kArray) refuse(sidecar + " lacks one of track_order/cent/aperture/c_canon as an array");
  }
  const size_t count = static_cast<size_t>(n);
  if (order->arr.size() != count || cent->arr.size() != count || aperture->arr.size() != count) {
    refuse(sidecar + " says n_donors=" + std::to_string(n) + " but carries track_order=" +
           std::to_string(order->arr.size()) + ", cent=" + std::to_string(cent->arr.size()) +
           ", aperture=" + std::to_string(aperture->arr.size()) +
           " — a count mismatch silently mis-orders the donors.");
  }
  if (canon->arr.size() != 2) refuse(sidecar + " c_canon is not a pair");

  // n entries in [0, n) with no repeat: a permutation.
  std::vector<bool> seen(count, false);
  in.track_order.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const int32_t v = tessera::truncToI32(order->arr[i].num);
    if (v < 0 || v >= n) {
      refuse(sidecar + " track_order[" + std::to_string(i) + "]=" + std::to_string(v) + " is outside [0," +
             std::to_string(n) + ")");
    }
    if (seen[static_cast<size_t>(v)]) {
      refuse(sidecar + " track_order is not a permutation (reference " + std::to_string(v) +
             " appears twice) — the inverse permutation would leave a reference slot never written and the pass "
             "would blend uninitialised memory into a real mouth.");
    }
    seen[static_cast<size_t>(v)] = true;
    in.track_order.push_back(v);
  }
  in.cent.reserve(2 * count);
  for (size_t i = 0; i < count; ++i) {
    const JVal& pair = cent->arr[i];
    if (pair.kind != JVal::kArray || pair.arr.size() != 2) {
      refuse(sidecar + " cent[" + std::to_string(i) + "] is not an (x,y) pair");
    }
    in.cent.push_back(pair.arr[0].num);
    in.cent.push_back(pair.arr[1].num);
  }
  in.aperture.reserve(count);
  for (const JVal& a : aperture->arr) in.aperture.push_back(a.num);
  in.c_canon = {canon->arr[0].num, canon->arr[1].num};

  const JVal empty;
  const JVal& tess = block ? *block : empty;
  in.bank_container = tessera::json::optStr(tess, "bank_container", "mp4");
  in.bank_packing = tessera::json::optStr(tess, "bank_packing", "rgb24_frames");
  const JVal* codec = objectMember(side, "codec");
  const std::string sideCodec = codec ? tessera::json::optStr(*codec, "codec", "") : "";
  const std::string sidePixFmt = codec ? tessera::json::optStr(*codec, "pix_fmt", "") : "";
  in.bank_codec = tessera::json::optStr(tess, "bank_codec", sideCodec);
  in.bank_pix_fmt = tessera::json::optStr(tess, "bank_pix_fmt", sidePixFmt);
  if (in.bank_pix_fmt.empty()) {
    refuse(dir + ": neither manifest.tessera.bank_pix_fmt nor " + sidecar +
           ".codec.pix_fmt states the reference track's pixel format. A decoder handed no format negotiates one, and "
           "the one it settles on is 4:2:0 — lossy chroma on reference pixels IS the borrow degrading. Refusing "
           "rather than letting it guess.");
  }
  return in;
}

TesseraAttachInputs loadTesseraMembers(const Manifest& manifest) { return loadTesseraMembers(manifest.bundle_dir); }

void reorderTrackToDonor(const TesseraAttachInputs& inputs, const uint8_t* trackFrames, uint8_t* donorFrames) {
  if (!trackFrames || !donorFrames) refuse("teeth: null band buffer");
  if (inputs.n_donors < 0 || inputs.track_order.size() != static_cast<size_t>(inputs.n_donors)) {
    refuse("teeth: track_order does not match n_donors");
  }
  if (inputs.band_w <= 0 || inputs.band_h <= 0) refuse("teeth: zero reference stride");
  const size_t frame = static_cast<size_t>(inputs.band_w) * static_cast<size_t>(inputs.band_h) * 3;
  // A record assembled by hand rather than loaded could hold anything; it is
  // checked whole before a byte is written.
  for (const int32_t slot : inputs.track_order)
    if (slot < 0 || slot >= inputs.n_donors) refuse("teeth: track_order does not match n_donors");
  for (size_t i = 0; i < inputs.track_order.size(); ++i) {
    const size_t slot = static_cast<size_t>(inputs.track_order[i]);
    std::memcpy(donorFrames + slot * frame, trackFrames + i * frame, frame);
  }
}

}  // namespace le
