// The teeth pass's test data: the generated session bundle's bank (read as a
// host reads it: members, the raw reference track, donor order) and the pass
// frames with their masks, keypoints and shifts.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tessera/head_weights.h"
#include "tessera/serve_config.h"
#include "tessera/teeth_members.h"
#include "tests/support/test_support.h"

namespace le::test {

inline std::string teethData(const std::string& rel) { return dataPath("teeth/" + rel); }

template <class T>
std::vector<T> teethArray(const std::string& rel) {
  const std::string bytes = readFile(teethData(rel));
  std::vector<T> out(bytes.size() / sizeof(T));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
  return out;
}

// The session bundle's members, its bank in donor order, and its head.
struct TeethBank {
  TesseraAttachInputs in;
  BankData bank;
  tessera::HeadWeights head;

  TeethBank() {
    in = loadTesseraMembers(teethData("session"));
    const std::string track = readFile(in.bank_track_path);
    bank.refs.resize(track.size());
    reorderTrackToDonor(in, reinterpret_cast<const uint8_t*>(track.data()), bank.refs.data());
    bank.n = in.n_donors;
    bank.cent = in.cent;
    bank.c_canon = in.c_canon;
    bank.aperture = in.aperture;
    bank.stamp = in.stamp;
    head = tessera::loadHeadPt(in.head_pt);
  }
  static tessera::ServeConfig config(const std::string& name) {
    return tessera::ServeConfig::fromHeadMemberJson(readFile(teethData("pass/config/" + name + ".json")));
  }
};

// The pass frames: canvases of S x S RGB, their pi masks, keypoint rows and
// shifts (dy -10000: derive from pi).
struct TeethFrames {
  static constexpr int32_t kS = 128;
  std::vector<uint8_t> rgb = teethArray<uint8_t>("pass/frames.u8");
  std::vector<uint8_t> pi = teethArray<uint8_t>("pass/pi.u8");
  std::vector<float> kp = teethArray<float>("pass/kp.f32");
  std::vector<int32_t> shifts = teethArray<int32_t>("pass/shifts.i32");

  int32_t count() const { return static_cast<int32_t>(pi.size() / (kS * kS)); }
  const uint8_t* canvas(int32_t i) const { return rgb.data() + static_cast<size_t>(i) * kS * kS * 3; }
  const uint8_t* mask(int32_t i) const { return pi.data() + static_cast<size_t>(i) * kS * kS; }
  const float* row(int32_t i) const { return kp.data() + static_cast<size_t>(i) * 63; }
  const int32_t* shift(int32_t i) const { return shifts[2 * i] == -10000 ? nullptr : shifts.data() + 2 * i; }
};

}  // namespace le::test
